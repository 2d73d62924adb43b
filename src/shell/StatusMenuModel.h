#pragma once

#include "ActivityEntry.h"
#include "MenuItem.h"
#include "SharedFolder.h"

#include <QList>
#include <QString>

class AppState;

// Everything the tray shows, as a pure function of the application state: the icon, the texts
// and the menu. Built afresh on every change and rendered into new widgets; never patched.
class StatusMenuModel {
public:
    // The drive symbols: with a check badge while the bridge is online, plain otherwise.
    static QString onlineSymbol() { return QStringLiteral("externaldrive.fill.badge.checkmark"); }
    static QString offlineSymbol() { return QStringLiteral("externaldrive"); }

    QString symbolName;
    // Shown next to the icon where a panel has room for a title; ours goes into the tool tip.
    QString buttonTitle;
    // The first, disabled line of the menu.
    QString header;
    // Why the bridge is not connected, in plain words; the menu's second disabled line, when
    // there is one.
    QString problem;
    QList<MenuItem> items;

    // The header and the problem, one to a line.
    QString toolTip() const;

    // How many of the agents' latest calls the "Recent Activity" submenu lists.
    static constexpr qsizetype recentActivityCount = 5;

    // `recent` is the agents' latest calls, newest first; only the first few are listed.
    static StatusMenuModel build(bool online, bool paired, const QString& statusText,
                                 const QList<SharedFolder>& folders, bool requireWriteApproval,
                                 const QString& problem = QString(), bool paused = false,
                                 const QList<ActivityEntry>& recent = {});
    static StatusMenuModel build(AppState& state);

    // Two spaces, the folder emoji, a space and the folder's name.
    static QString folderTitle(const SharedFolder& folder);
};
