#pragma once

#include "MenuItem.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>

#include <functional>

// The main menu's keys as shortcuts in every window of the application. An application-wide
// event filter sees a key press before the window (widgets or QML) does, so Ctrl+Q quits from
// anywhere. Only the commands in `taken` are bound; every other key stays with the focused
// window.
class MainMenuShortcuts : public QObject {
    Q_OBJECT

public:
    // Called with the command and the object the key press was meant for.
    using Handler = std::function<void(MenuAction action, QObject* receiver)>;

    MainMenuShortcuts(const QList<MenuItem>& menus, const QSet<MenuAction>& taken, Handler handler,
                      QObject* parent = nullptr);
    ~MainMenuShortcuts() override;

    // The command bound to a key combination, or None.
    MenuAction actionFor(QKeyCombination combination) const;

    // Hides the top-level window that holds `receiver` (a widget, a window or an item in one).
    // Dialogs stay: they wait for an answer.
    static void hideWindowOf(QObject* receiver);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void bind(const QList<MenuItem>& items, const QSet<MenuAction>& taken);

    // Keyed by QKeyCombination::toCombined().
    QHash<int, MenuAction> m_bindings;
    Handler m_handler;
};
