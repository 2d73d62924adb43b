#pragma once

#include "AppOptions.h"
#include "AppServices.h"
#include "SharedFolder.h"

#include <QString>

// The application state as commands use it: the same operations as the tray and window, without
// starting the bridge.
namespace OfflineState {

// Nobody to ask: commands never run an agent's call or show a chooser.
AppServices services();
// Without the bridge, so that a running companion keeps its connection.
AppOptions options();
// A running companion reads what a command changed at once, instead of at its next start.
void tellRunningCompanion();
// "NAME<TAB>PATH<TAB>read-write", as `folders` and `status` list a folder.
QString folderLine(const SharedFolder& folder);

} // namespace OfflineState
