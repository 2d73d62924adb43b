#pragma once

#include "SharedFolder.h"

#include <QString>

class AppState;

// The application state as commands use it: the same operations as the tray and window, without
// starting the bridge.
namespace OfflineState {

AppState& shared();
// A running companion reads what a command changed at once, instead of at its next start.
void tellRunningCompanion();
// "NAME<TAB>PATH<TAB>read-write", as `folders` and `status` list a folder.
QString folderLine(const SharedFolder& folder);

} // namespace OfflineState
