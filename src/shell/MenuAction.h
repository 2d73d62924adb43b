#pragma once

#include <QString>

// What choosing a menu item does. The status menu's commands go to the AppDelegate; the main
// menu's commands act on the window that has the keyboard focus.
enum class MenuAction {
    None,
    // Status menu
    OpenSetup,
    AddFolder,
    RemoveFolder,
    ToggleReadOnly,
    ToggleApproval,
    TogglePause,
    Unpair,
    Quit,
    // Main menu
    Hide,
    Terminate,
};

// The handler's name, as a developer reads it in a test failure: "openSetup", "hide:", ...
QString menuActionName(MenuAction action);
