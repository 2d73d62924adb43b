#include "MainMenuShortcuts.h"

#include <QApplication>
#include <QDialog>
#include <QKeyEvent>
#include <QWidget>
#include <QWindow>

MainMenuShortcuts::MainMenuShortcuts(const QList<MenuItem>& menus, const QSet<MenuAction>& taken,
                                     Handler handler, QObject* parent)
    : QObject(parent), m_handler(std::move(handler)) {
    bind(menus, taken);
    if (QCoreApplication* app = QCoreApplication::instance()) {
        app->installEventFilter(this);
    }
}

MainMenuShortcuts::~MainMenuShortcuts() {
    if (QCoreApplication* app = QCoreApplication::instance()) {
        app->removeEventFilter(this);
    }
}

void MainMenuShortcuts::bind(const QList<MenuItem>& items, const QSet<MenuAction>& taken) {
    for (const MenuItem& item : items) {
        bind(item.submenu, taken);
        if (item.key.isEmpty() || !taken.contains(item.action)) {
            continue;
        }
        const QKeySequence sequence = item.shortcut();
        if (!sequence.isEmpty()) {
            m_bindings.insert(sequence[0].toCombined(), item.action);
        }
    }
}

bool MainMenuShortcuts::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) {
        return false;
    }
    auto* key = static_cast<QKeyEvent*>(event);
    const Qt::KeyboardModifiers modifiers = key->modifiers() & ~Qt::KeypadModifier;
    const MenuAction action = actionFor(QKeyCombination(modifiers, Qt::Key(key->key())));
    if (action == MenuAction::None) {
        return false;
    }
    if (m_handler) {
        m_handler(action, watched);
    }
    return true;
}

MenuAction MainMenuShortcuts::actionFor(QKeyCombination combination) const {
    return m_bindings.value(combination.toCombined(), MenuAction::None);
}

void MainMenuShortcuts::hideWindowOf(QObject* receiver) {
    if (auto* widget = qobject_cast<QWidget*>(receiver)) {
        QWidget* top = widget->window();
        if (!qobject_cast<QDialog*>(top)) {
            top->hide();
        }
        return;
    }
    QWindow* window = qobject_cast<QWindow*>(receiver);
    if (!window) {
        // An item inside a window (QML): the key went to the window that has the focus.
        window = QGuiApplication::focusWindow();
    }
    if (!window) {
        return;
    }
    while (QWindow* parent = window->parent()) {
        window = parent;
    }
    // A widget's window is hidden through its widget, so the widget knows.
    for (QWidget* top : QApplication::topLevelWidgets()) {
        if (top->windowHandle() == window) {
            if (!qobject_cast<QDialog*>(top)) {
                top->hide();
            }
            return;
        }
    }
    if (window->modality() == Qt::NonModal) {
        window->hide();
    }
}
