#include "StatusMenuRenderer.h"

#include <QAction>
#include <QMenu>

namespace {

void fill(QMenu* menu, const QList<MenuItem>& items, const StatusMenuRenderer::Dispatch& dispatch) {
    for (const MenuItem& item : items) {
        if (item.separator) {
            menu->addSeparator();
            continue;
        }
        const QString text = StatusMenuRenderer::displayText(item.title);
        if (!item.submenu.isEmpty()) {
            auto* submenu = new QMenu(text, menu);
            fill(submenu, item.submenu, dispatch);
            QAction* opener = menu->addMenu(submenu);
            opener->setEnabled(item.enabled);
            opener->setData(item.representedObject);
            continue;
        }
        QAction* action = menu->addAction(text);
        action->setEnabled(item.enabled);
        action->setCheckable(item.checkable);
        action->setChecked(item.checked);
        action->setData(item.representedObject);
        if (!item.key.isEmpty()) {
            action->setShortcut(item.shortcut());
            action->setShortcutVisibleInContextMenu(true);
        }
        if (item.action != MenuAction::None && dispatch) {
            QObject::connect(action, &QAction::triggered, action,
                             [dispatch, item, action] { dispatch(item, action); });
        }
    }
}

} // namespace

QMenu* StatusMenuRenderer::render(const QList<MenuItem>& items, const Dispatch& dispatch,
                                  QWidget* parent) {
    auto* menu = new QMenu(parent);
    fill(menu, items, dispatch);
    return menu;
}

QString StatusMenuRenderer::displayText(const QString& title) {
    QString text = title;
    text.replace(u'&', QStringLiteral("&&"));
    return text;
}
