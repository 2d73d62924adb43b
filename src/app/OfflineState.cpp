#include "OfflineState.h"

#include "AppState.h"
#include "SingleInstance.h"

AppState& OfflineState::shared() {
    AppState::setBridgeEnabled(false);
    return AppState::shared();
}

void OfflineState::tellRunningCompanion() {
    SingleInstance::ask(SingleInstance::defaultDirectory(), QByteArrayLiteral("reload"));
}

QString OfflineState::folderLine(const SharedFolder& folder) {
    return folder.name + u'\t' + folder.path + u'\t' +
           (folder.readOnly ? QStringLiteral("read-only") : QStringLiteral("read-write"));
}
