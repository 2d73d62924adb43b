// The desktop entry point with a stand-in window that prints "window shown" each time it is
// brought up; the token lives in a file and the bridge stays idle.

#include "DesktopApp.h"
#include "Keychain.h"
#include "WindowPresenter.h"

#include <cstdio>

namespace {

class PrintingWindow : public WindowPresenter {
public:
    void show() override {
        std::fputs("window shown\n", stdout);
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv) {
    return DesktopApp::run(
        argc, argv, [] { return std::make_unique<PrintingWindow>(); },
        Keychain(Keychain::Backend::TokenFile), AppOptions{false, true});
}
