#pragma once

#include "MenuAction.h"

#include <QKeySequence>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

// One entry of a menu, as data: the menus are built as lists of these and only then turned into
// widgets, so what a menu holds can be checked without showing it.
struct MenuItem {
    bool separator = false;
    QString title;
    MenuAction action = MenuAction::None;
    // A one-character key equivalent, used with Ctrl; an upper-case letter adds Shift. Empty for
    // none.
    QString key;
    bool enabled = true;
    // Whether the item shows a check box, and whether it is ticked.
    bool checkable = false;
    bool checked = false;
    // Handed to the action with the item (a folder's id, for instance); null for none.
    QVariant representedObject;
    QList<MenuItem> submenu;

    static MenuItem makeSeparator();
    static MenuItem make(const QString& title, MenuAction action, bool enabled = true);

    // Ctrl plus the key; "q" is Ctrl+Q, "Z" is Ctrl+Shift+Z. Empty when the item has no key.
    QKeySequence shortcut() const;
    static QKeySequence shortcutFor(const QString& key);

    // One line per item, submenus indented, for test failures and debugging:
    // "Ask before writing files [x] -> toggleApproval", "Quit Quillmar OS -> quitTapped <q>".
    static QStringList describe(const QList<MenuItem>& items, const QString& indent = QString());

    friend bool operator==(const MenuItem& a, const MenuItem& b);
};
