#pragma once

#include "MenuItem.h"

#include <QList>

// The application's main menu as data: an untitled application menu, a top-level item whose
// submenu holds the commands. Linux desktops have no global menu bar for a tray application,
// so the menu is never drawn; its keys become window shortcuts (MainMenuShortcuts). Editing
// keys are left to the focused text field, which already answers them.
namespace MainMenuModel {

QList<MenuItem> build();

} // namespace MainMenuModel
