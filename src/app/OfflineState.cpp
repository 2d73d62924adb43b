#include "OfflineState.h"

#include "SingleInstance.h"

AppServices OfflineState::services() {
    return AppServices{nullptr, nullptr, Keychain()};
}

AppOptions OfflineState::options() {
    return AppOptions{false, true};
}

void OfflineState::tellRunningCompanion() {
    SingleInstance::ask(SingleInstance::defaultDirectory(), QByteArrayLiteral("reload"));
}

QString OfflineState::folderLine(const SharedFolder& folder) {
    return folder.name + u'\t' + folder.path + u'\t' +
           (folder.readOnly ? QStringLiteral("read-only") : QStringLiteral("read-write"));
}
