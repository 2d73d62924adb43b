#pragma once

#include <QString>

// What choosing a menu item does. The status menu's commands go to the AppDelegate; the main
// menu's commands go to whatever has the keyboard focus.
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
    Undo,
    Redo,
    Cut,
    Copy,
    Paste,
    SelectAll,
};

// The handler's name, as a developer reads it in a test failure: "openSetup", "hide:", ...
QString menuActionName(MenuAction action);
