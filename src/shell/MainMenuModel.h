#pragma once

#include "MenuItem.h"

#include <QList>

// The application's main menu as data: an untitled application menu and the Edit menu, each a
// top-level item whose submenu holds the commands. Linux desktops have no global menu bar for
// a tray application, so the menu is never drawn; its keys become window shortcuts
// (MainMenuShortcuts), and the Edit commands are the ones every text field already answers.
class MainMenuModel {
public:
    static QList<MenuItem> build();
};
