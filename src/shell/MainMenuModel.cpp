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
    return {application};
}
