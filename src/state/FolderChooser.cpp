#include "FolderChooser.h"

namespace {

std::shared_ptr<FolderChooser>& current() {
    static std::shared_ptr<FolderChooser> chooser;
    return chooser;
}

} // namespace

void FolderChooser::install(std::shared_ptr<FolderChooser> chooser) {
    current() = std::move(chooser);
}

std::shared_ptr<FolderChooser> FolderChooser::installed() {
    return current();
}
