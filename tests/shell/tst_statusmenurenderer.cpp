#include "MenuItem.h"
#include "ShellTestMain.h"
#include "StatusMenuModel.h"
#include "StatusMenuRenderer.h"

#include <QAction>
#include <QMenu>
#include <QTest>

#include <memory>

namespace {

SharedFolder folder(const QString& name, const QString& path) {
    return SharedFolder{QUuid::createUuid(), name, path, std::nullopt};
}

// Compares a rendered menu with its model, item by item, submenus included.
void compareMenu(const QMenu* menu, const QList<MenuItem>& items) {
    const QList<QAction*> actions = menu->actions();
    QCOMPARE(actions.size(), items.size());
    for (qsizetype i = 0; i < items.size(); ++i) {
        const MenuItem& item = items.at(i);
        const QAction* action = actions.at(i);
        QCOMPARE(action->isSeparator(), item.separator);
        if (item.separator) {
            continue;
        }
        QString shown = action->text();
        shown.replace(QStringLiteral("&&"), QStringLiteral("&"));
        QCOMPARE(shown, item.title);
        QCOMPARE(action->isEnabled(), item.enabled);
        QCOMPARE(action->isCheckable(), item.checkable);
        QCOMPARE(action->isChecked(), item.checked);
        QCOMPARE(action->shortcut(), item.shortcut());
        QCOMPARE(action->data(), item.representedObject);
        if (item.submenu.isEmpty()) {
            QVERIFY(!action->menu());
        } else {
            QVERIFY(action->menu());
            compareMenu(action->menu(), item.submenu);
        }
    }
}

} // namespace

class StatusMenuRendererTest : public QObject {
    Q_OBJECT

private slots:
    void renderedMenusMatchTheirModels_data() {
        QTest::addColumn<int>("layout");
        QTest::newRow("unpaired") << 0;
        QTest::newRow("paired without folders") << 1;
        QTest::newRow("paired with folders, online") << 2;
        QTest::newRow("approval off") << 3;
    }

    void renderedMenusMatchTheirModels() {
        QFETCH(int, layout);
        StatusMenuModel model;
        const QList<SharedFolder> folders{folder(QStringLiteral("Docs"), QStringLiteral("/d")),
                                          folder(QStringLiteral("Docs 2"), QStringLiteral("/d"))};
        switch (layout) {
        case 0:
            model = StatusMenuModel::build(false, false, QStringLiteral("Not connected"), {}, true);
            break;
        case 1:
            model = StatusMenuModel::build(false, true, QStringLiteral("Reconnecting in 2s…"), {},
                                           true);
            break;
        case 2:
            model = StatusMenuModel::build(true, true, QString(), folders, true);
            break;
        default:
            model = StatusMenuModel::build(true, true, QString(), folders, false);
            break;
        }
        const std::unique_ptr<QMenu> menu(StatusMenuRenderer::render(model.items, {}));
        compareMenu(menu.get(), model.items);
    }

    void quitShowsControlQ() {
        const StatusMenuModel model = StatusMenuModel::build(false, false, QString(), {}, true);
        const std::unique_ptr<QMenu> menu(StatusMenuRenderer::render(model.items, {}));
        const QAction* quit = menu->actions().back();
        QCOMPARE(quit->text(), QStringLiteral("Quit Quillmar OS"));
        QCOMPARE(quit->shortcut().toString(QKeySequence::PortableText), QStringLiteral("Ctrl+Q"));
        QVERIFY(quit->isShortcutVisibleInContextMenu());
    }

    void ampersandsShowAsThemselves() {
        const StatusMenuModel model =
            StatusMenuModel::build(false, true, QString(),
                                   {folder(QStringLiteral("R&D"), QStringLiteral("/x/R&D"))}, true);
        const std::unique_ptr<QMenu> menu(StatusMenuRenderer::render(model.items, {}));
        QAction* entry = menu->actions().at(3);
        QCOMPARE(entry->text(), QStringLiteral("  \U0001F4C1 R&&D"));
        QCOMPARE(entry->menu()->actions().at(0)->text(), QStringLiteral("/x/R&&D"));
        compareMenu(menu.get(), model.items);
    }

    void choosingAnItemDispatchesItAndItsSender() {
        const SharedFolder docs = folder(QStringLiteral("Docs"), QStringLiteral("/d"));
        const StatusMenuModel model = StatusMenuModel::build(true, true, QString(), {docs}, true);
        QList<MenuAction> chosen;
        QList<QVariant> carried;
        const std::unique_ptr<QMenu> menu(
            StatusMenuRenderer::render(model.items, [&](const MenuItem& item, QAction* sender) {
                chosen.append(item.action);
                carried.append(sender->data());
            }));
        const QList<QAction*> actions = menu->actions();
        // Disabled lines and submenu openers do nothing.
        actions.at(0)->trigger();
        actions.at(3)->trigger();
        actions.at(6)->trigger();
        actions.at(6)->menu()->actions().at(0)->trigger();
        QVERIFY(chosen.isEmpty());
        actions.at(3)->menu()->actions().at(2)->trigger();
        actions.at(3)->menu()->actions().at(3)->trigger();
        actions.at(4)->trigger();
        actions.at(5)->trigger();
        actions.at(8)->trigger();
        actions.at(9)->trigger();
        actions.at(10)->trigger();
        actions.at(12)->trigger();
        QCOMPARE(chosen, (QList<MenuAction>{MenuAction::ToggleReadOnly, MenuAction::RemoveFolder,
                                            MenuAction::AddFolder, MenuAction::OpenSetup,
                                            MenuAction::ToggleApproval, MenuAction::TogglePause,
                                            MenuAction::Unpair, MenuAction::Quit}));
        QCOMPARE(carried.at(0), QVariant(docs.idString()));
        QCOMPARE(carried.at(1), QVariant(docs.idString()));
    }
};

QUILLMAR_SHELL_TEST_MAIN(StatusMenuRendererTest)
#include "tst_statusmenurenderer.moc"
