#include "MainMenuModel.h"

namespace {

MenuItem command(const QString& title, MenuAction action, const QString& key) {
    MenuItem item = MenuItem::make(title, action);
    item.key = key;
    return item;
}

} // namespace

QList<MenuItem> MainMenuModel::build() {
    MenuItem application = MenuItem::make(QString(), MenuAction::None);
    application.submenu = {
        command(QStringLiteral("Hide Quillmar OS"), MenuAction::Hide, QStringLiteral("h")),
        MenuItem::makeSeparator(),
        command(QStringLiteral("Quit Quillmar OS"), MenuAction::Terminate, QStringLiteral("q")),
    };

    MenuItem edit = MenuItem::make(QStringLiteral("Edit"), MenuAction::None);
    edit.submenu = {
        command(QStringLiteral("Undo"), MenuAction::Undo, QStringLiteral("z")),
        command(QStringLiteral("Redo"), MenuAction::Redo, QStringLiteral("Z")),
        MenuItem::makeSeparator(),
        command(QStringLiteral("Cut"), MenuAction::Cut, QStringLiteral("x")),
        command(QStringLiteral("Copy"), MenuAction::Copy, QStringLiteral("c")),
        command(QStringLiteral("Paste"), MenuAction::Paste, QStringLiteral("v")),
        command(QStringLiteral("Select All"), MenuAction::SelectAll, QStringLiteral("a")),
    };
    return {application, edit};
}
