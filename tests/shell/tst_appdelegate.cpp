#include "ActivityLog.h"
#include "AppDelegate.h"
#include "AppSettings.h"
#include "AppState.h"
#include "BridgeClient.h"
#include "FakeWindow.h"
#include "FolderChooser.h"
#include "FolderStore.h"
#include "ShellTestMain.h"
#include "StateSandbox.h"
#include "StatusIcons.h"
#include "StatusMenuModel.h"

#include <QAction>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTest>
#include <QWindow>

namespace {

class ScriptedChooser : public FolderChooser {
public:
    std::optional<QString> answer;
    int asked = 0;
    QCoro::Task<std::optional<QString>> chooseFolder(QString, QString) override {
        ++asked;
        // A copy: GCC 12 moves from a member named in co_return.
        const std::optional<QString> given = answer;
        co_return given;
    }
};

QStringList shownTitles(const QMenu* menu) {
    QStringList out;
    for (const QAction* action : menu->actions()) {
        out.append(action->isSeparator() ? QStringLiteral("---") : action->text());
    }
    return out;
}

QAction* actionTitled(const QMenu* menu, const QString& title) {
    for (QAction* action : menu->actions()) {
        if (action->text() == title) {
            return action;
        }
    }
    return nullptr;
}

const QStringList unpairedLayout{QStringLiteral("Quillmar OS — Not connected"),
                                 QStringLiteral("---"), QStringLiteral("Set Up Quillmar OS…"),
                                 QStringLiteral("---"), QStringLiteral("Quit Quillmar OS")};

} // namespace

class AppDelegateTest : public QObject {
    Q_OBJECT

    std::unique_ptr<StateSandbox> sandbox;
    std::shared_ptr<int> shows;
    std::unique_ptr<AppDelegate> delegate;
    std::shared_ptr<ScriptedChooser> chooser;
    int terminations = 0;

    AppDelegate& makeDelegate(bool trayAvailable = true) {
        delegate =
            std::make_unique<AppDelegate>(sandbox->state(), std::make_unique<FakeWindow>(shows));
        delegate->setTrayAvailable([trayAvailable] { return trayAvailable; });
        delegate->setTerminate([this] { ++terminations; });
        return *delegate;
    }

    AppDelegate& launch(bool trayAvailable = true) {
        AppDelegate& d = makeDelegate(trayAvailable);
        d.applicationDidFinishLaunching();
        return d;
    }

    QMenu& menu() {
        QMenu* current = delegate->statusMenu();
        if (!current) {
            qFatal("no status menu");
        }
        return *current;
    }

private slots:
    void init() {
        sandbox = std::make_unique<StateSandbox>();
        shows = std::make_shared<int>(0);
        terminations = 0;
        chooser = std::make_shared<ScriptedChooser>();
        sandbox->setFolderChooser(chooser);
    }

    void cleanup() {
        delegate.reset();
        sandbox.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    void unpairedAtLaunchOpensTheWindowAndTheSetUpMenu() {
        launch();
        QCOMPARE(*shows, 1);
        QCOMPARE(shownTitles(&menu()), unpairedLayout);
        const QList<QAction*> actions = menu().actions();
        QVERIFY(!actions.at(0)->isEnabled());
        QVERIFY(actions.at(2)->isEnabled());
        QVERIFY(actions.at(4)->isEnabled());
        QCOMPARE(actions.at(4)->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
        QCOMPARE(delegate->statusItem()->contextMenu(), &menu());
    }

    void pairedAtLaunchOpensTheWindowOnlyWhenAsked_data() {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<bool>("set");
        QTest::addColumn<int>("expectedShows");
        QTest::newRow("absent") << QByteArray() << false << 0;
        QTest::newRow("1") << QByteArray("1") << true << 1;
        QTest::newRow("true") << QByteArray("true") << true << 0;
        QTest::newRow("empty") << QByteArray() << true << 0;
        QTest::newRow("01") << QByteArray("01") << true << 0;
        QTest::newRow("1 with a space") << QByteArray("1 ") << true << 0;
    }

    void pairedAtLaunchOpensTheWindowOnlyWhenAsked() {
        QFETCH(QByteArray, value);
        QFETCH(bool, set);
        QFETCH(int, expectedShows);
        sandbox->storeToken();
        if (set) {
            qputenv("QUILLMAR_SHOW_ONBOARDING", value);
        }
        launch();
        qunsetenv("QUILLMAR_SHOW_ONBOARDING");
        QVERIFY(sandbox->state().paired());
        QCOMPARE(*shows, expectedShows);
    }

    void withoutATrayTheWindowOpensEvenWhenPaired() {
        sandbox->storeToken();
        launch(false);
        QCOMPARE(*shows, 1);
        // The menu is still kept, for the moment a tray appears.
        QVERIFY(delegate->statusMenu());
    }

    void closingTheLastWindowDoesNotQuit() {
        QApplication::setQuitOnLastWindowClosed(true);
        launch();
        QVERIFY(!QApplication::quitOnLastWindowClosed());
    }

    void trayIconAndToolTipFollowTheState() {
        sandbox->storeToken();
        launch();
        QSystemTrayIcon* item = delegate->statusItem();
        QVERIFY(!item->icon().isNull());
        QCOMPARE(item->toolTip(), QStringLiteral("Quillmar OS — Not connected"));
        const QImage offline = item->icon().pixmap(22).toImage();
        QCOMPARE(offline, StatusIcons::icon(StatusMenuModel::offlineSymbol()).pixmap(22).toImage());

        emit sandbox->state().bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));
        QCOMPARE(item->toolTip(), QStringLiteral("Quillmar OS — Connected"));
        const QImage online = item->icon().pixmap(22).toImage();
        QCOMPARE(online, StatusIcons::icon(StatusMenuModel::onlineSymbol()).pixmap(22).toImage());
        QVERIFY(online != offline);
    }

    void pairedWithoutFolders() {
        sandbox->storeToken();
        launch();
        QCOMPARE(shownTitles(&menu()),
                 (QStringList{
                     QStringLiteral("Quillmar OS — Not connected"), QStringLiteral("---"),
                     QStringLiteral("Shared Folders"),
                     QStringLiteral("  (none yet — add one below)"), QStringLiteral("Add Folder…"),
                     QStringLiteral("Open Quillmar OS Window…"), QStringLiteral("Recent Activity"),
                     QStringLiteral("---"), QStringLiteral("Ask before writing files"),
                     QStringLiteral("Pause Sharing"), QStringLiteral("Unpair this computer"),
                     QStringLiteral("---"), QStringLiteral("Quit Quillmar OS")}));
        const QList<QAction*> actions = menu().actions();
        QVERIFY(!actions.at(2)->isEnabled());
        QVERIFY(!actions.at(3)->isEnabled());
        QVERIFY(actions.at(8)->isChecked());
    }

    void whileOfflineTheHeaderShowsTheBridgeText() {
        sandbox->storeToken();
        launch();
        const QString reconnecting = QStringLiteral("Reconnecting in 2s\u2026");
        emit sandbox->state().bridge().statusChanged(false, reconnecting);
        QCOMPARE(menu().actions().front()->text(), QStringLiteral("Quillmar OS — ") + reconnecting);
        QVERIFY(!menu().actions().front()->isEnabled());
        QCOMPARE(delegate->statusMenuModel().symbolName, QStringLiteral("externaldrive"));
    }

    void onlineTheHeaderSaysConnected() {
        sandbox->storeToken();
        launch();
        emit sandbox->state().bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));
        QCOMPARE(menu().actions().front()->text(), QStringLiteral("Quillmar OS — Connected"));
        QCOMPARE(delegate->statusMenuModel().symbolName,
                 QStringLiteral("externaldrive.fill.badge.checkmark"));
    }

    void everyChangeBuildsANewMenu() {
        sandbox->storeToken();
        launch();
        QPointer<QMenu> first = delegate->statusMenu();
        emit sandbox->state().changed();
        QPointer<QMenu> second = delegate->statusMenu();
        QVERIFY(second);
        QVERIFY(first != second);
        QCOMPARE(delegate->statusItem()->contextMenu(), second.data());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(first.isNull());
        QVERIFY(!second.isNull());
    }

    void aMenuReplacedWhileOpenGoesWhenItCloses() {
        sandbox->storeToken();
        launch();
        QPointer<QMenu> open = delegate->statusMenu();
        open->popup(QPoint(10, 10));
        QTRY_VERIFY(open->isVisible());
        emit sandbox->state().bridge().statusChanged(false, QStringLiteral("Reconnecting in 4s…"));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!open.isNull());
        QVERIFY(open != delegate->statusMenu());
        open->hide();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(open.isNull());
    }

    void twoFoldersWithTheSamePathEachRemoveOnlyTheirOwnRecord() {
        sandbox->storeToken();
        launch();
        const QString path = sandbox->folder(QStringLiteral("Shared"));
        const SharedFolder first = sandbox->state().addFolderAt(path);
        const SharedFolder second = sandbox->state().addFolderAt(path);
        QCOMPARE(first.path, second.path);

        QAction* firstEntry = actionTitled(&menu(), QStringLiteral("  \U0001F4C1 Shared"));
        QAction* secondEntry = actionTitled(&menu(), QStringLiteral("  \U0001F4C1 Shared 2"));
        QVERIFY(firstEntry && firstEntry->menu());
        QVERIFY(secondEntry && secondEntry->menu());
        QCOMPARE(firstEntry->menu()->actions().at(0)->text(), path);
        QCOMPARE(secondEntry->menu()->actions().at(0)->text(), path);

        // The second entry's "Stop sharing" removes the second record only.
        QAction* stopSecond = secondEntry->menu()->actions().at(3);
        QCOMPARE(stopSecond->text(), QStringLiteral("Stop sharing this folder"));
        stopSecond->trigger();
        QCOMPARE(sandbox->state().folders(), QList<SharedFolder>{first});
        QVERIFY(!actionTitled(&menu(), QStringLiteral("  \U0001F4C1 Shared 2")));

        QAction* stopFirst =
            actionTitled(&menu(), QStringLiteral("  \U0001F4C1 Shared"))->menu()->actions().at(3);
        stopFirst->trigger();
        QVERIFY(sandbox->state().folders().isEmpty());
        QVERIFY(actionTitled(&menu(), QStringLiteral("  (none yet — add one below)")));
    }

    void removingWithoutAUsableIdDoesNothing() {
        sandbox->storeToken();
        launch();
        const SharedFolder kept =
            sandbox->state().addFolderAt(sandbox->folder(QStringLiteral("Kept")));
        int changes = 0;
        connect(&sandbox->state(), &AppState::changed, this, [&changes] { ++changes; });

        QAction none;
        delegate->removeFolderTapped(none);
        QAction number;
        number.setData(42);
        delegate->removeFolderTapped(number);
        QAction bytes;
        bytes.setData(kept.idString().toUtf8());
        delegate->removeFolderTapped(bytes);
        QAction unknown;
        unknown.setData(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
        delegate->removeFolderTapped(unknown);
        QAction lowerCase;
        lowerCase.setData(kept.idString().toLower());
        delegate->removeFolderTapped(lowerCase);

        QCOMPARE(sandbox->state().folders(), QList<SharedFolder>{kept});
        QCOMPARE(changes, 0);

        QAction exact;
        exact.setData(kept.idString());
        delegate->removeFolderTapped(exact);
        QVERIFY(sandbox->state().folders().isEmpty());
        QCOMPARE(changes, 1);
    }

    void toggleApprovalStoresTheSettingAndMovesTheCheckMark() {
        sandbox->storeToken();
        launch();
        QVERIFY(sandbox->state().requireWriteApproval());
        actionTitled(&menu(), QStringLiteral("Ask before writing files"))->trigger();
        QVERIFY(!sandbox->state().requireWriteApproval());
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(false));
        QAction* approval = actionTitled(&menu(), QStringLiteral("Ask before writing files"));
        QVERIFY(approval->isCheckable());
        QVERIFY(!approval->isChecked());

        // The next launch reads what was stored.
        delegate.reset();
        sandbox->endState();
        launch();
        QVERIFY(!sandbox->state().requireWriteApproval());
        QVERIFY(!actionTitled(&menu(), QStringLiteral("Ask before writing files"))->isChecked());

        delegate->toggleApproval();
        QVERIFY(sandbox->state().requireWriteApproval());
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(true));
        QVERIFY(actionTitled(&menu(), QStringLiteral("Ask before writing files"))->isChecked());
    }

    void readOnlyFlipsTheFolderItCarries() {
        sandbox->storeToken();
        launch();
        const QString path = sandbox->folder(QStringLiteral("Shared"));
        const SharedFolder first = sandbox->state().addFolderAt(path);
        const SharedFolder second = sandbox->state().addFolderAt(path);
        const auto readOnlyOf = [&](const QString& title) {
            QAction* entry = actionTitled(&menu(), title);
            return entry && entry->menu() ? actionTitled(entry->menu(), QStringLiteral("Read Only"))
                                          : nullptr;
        };
        QAction* secondReadOnly = readOnlyOf(QStringLiteral("  \U0001F4C1 Shared 2"));
        QVERIFY(secondReadOnly);
        QVERIFY(secondReadOnly->isCheckable());
        QVERIFY(!secondReadOnly->isChecked());
        secondReadOnly->trigger();
        QVERIFY(!sandbox->state().folders().at(0).readOnly);
        QVERIFY(sandbox->state().folders().at(1).readOnly);
        QCOMPARE(sandbox->state().folders().at(1).id, second.id);
        // Stored, and the rebuilt menu has the check mark.
        QVERIFY(FolderStore::load().at(1).readOnly);
        QVERIFY(readOnlyOf(QStringLiteral("  \U0001F4C1 Shared 2"))->isChecked());
        QVERIFY(!readOnlyOf(QStringLiteral("  \U0001F4C1 Shared"))->isChecked());

        // Again: read-write.
        readOnlyOf(QStringLiteral("  \U0001F4C1 Shared 2"))->trigger();
        QVERIFY(!sandbox->state().folders().at(1).readOnly);
        QVERIFY(!readOnlyOf(QStringLiteral("  \U0001F4C1 Shared 2"))->isChecked());

        // Without a usable id nothing changes.
        QAction unknown;
        unknown.setData(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
        delegate->toggleReadOnlyTapped(unknown);
        QAction none;
        delegate->toggleReadOnlyTapped(none);
        QVERIFY(!sandbox->state().folders().at(0).readOnly);
        QCOMPARE(sandbox->state().folders().at(0).id, first.id);
    }

    void pauseSharingFlipsToResumeAndBack() {
        sandbox->storeToken();
        launch();
        QVERIFY(!actionTitled(&menu(), QStringLiteral("Resume Sharing")));
        actionTitled(&menu(), QStringLiteral("Pause Sharing"))->trigger();
        QVERIFY(sandbox->state().paused());
        QCOMPARE(AppSettings::boolean(AppState::pausedSettingKey()), std::optional<bool>(true));
        QCOMPARE(menu().actions().front()->text(), QStringLiteral("Quillmar OS — Paused"));
        QVERIFY(!actionTitled(&menu(), QStringLiteral("Pause Sharing")));

        actionTitled(&menu(), QStringLiteral("Resume Sharing"))->trigger();
        QVERIFY(!sandbox->state().paused());
        QCOMPARE(AppSettings::boolean(AppState::pausedSettingKey()), std::optional<bool>(false));
        QVERIFY(actionTitled(&menu(), QStringLiteral("Pause Sharing")));
    }

    void anAgentsCallRebuildsTheMenu() {
        sandbox->storeToken();
        launch();
        QAction* recent = actionTitled(&menu(), QStringLiteral("Recent Activity"));
        QVERIFY(recent && recent->menu());
        QCOMPARE(shownTitles(recent->menu()), QStringList{QStringLiteral("(nothing yet)")});

        ActivityEntry entry;
        entry.time = QDateTime::currentDateTime();
        entry.tool = QStringLiteral("local_write_file");
        entry.subject = QStringLiteral("Shared/notes.txt");
        entry.bytes = 5;
        entry.versionId = QStringLiteral("1");
        sandbox->state().activity().append(entry);
        const QString line = entry.time.toString(QStringLiteral("HH:mm:ss")) +
                             QStringLiteral("  Wrote  Shared/notes.txt  wrote 5 bytes");
        // Shortly after, not while the call is answered.
        QTRY_COMPARE(shownTitles(actionTitled(&menu(), QStringLiteral("Recent Activity"))->menu()),
                     QStringList{line});
        recent = actionTitled(&menu(), QStringLiteral("Recent Activity"));
        QVERIFY(!recent->menu()->actions().front()->isEnabled());

        // The write undone: the line says so.
        sandbox->state().activity().markRestored(QStringLiteral("1"));
        QTRY_COMPARE(shownTitles(actionTitled(&menu(), QStringLiteral("Recent Activity"))->menu()),
                     QStringList{line + QStringLiteral(" (restored)")});
    }

    void unpairFallsBackToTheSetUpMenuAndOpensTheWindow() {
        sandbox->storeToken();
        launch();
        const SharedFolder kept =
            sandbox->state().addFolderAt(sandbox->folder(QStringLiteral("Kept")));
        emit sandbox->state().bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));
        QCOMPARE(*shows, 0);

        actionTitled(&menu(), QStringLiteral("Unpair this computer"))->trigger();
        QVERIFY(!sandbox->state().paired());
        QCOMPARE(*shows, 1);
        QCOMPARE(shownTitles(&menu()), unpairedLayout);
        QCOMPARE(delegate->statusMenuModel().symbolName, QStringLiteral("externaldrive"));
        // Folders stay; the token goes.
        QCOMPARE(sandbox->state().folders(), QList<SharedFolder>{kept});
        QTRY_VERIFY(!sandbox->hasToken());
    }

    void setUpAndOpenWindowBringUpTheWindow() {
        launch();
        QCOMPARE(*shows, 1);
        actionTitled(&menu(), QStringLiteral("Set Up Quillmar OS…"))->trigger();
        QCOMPARE(*shows, 2);

        delegate.reset();
        sandbox->endState();
        sandbox->storeToken();
        *shows = 0;
        launch();
        actionTitled(&menu(), QStringLiteral("Open Quillmar OS Window…"))->trigger();
        QCOMPARE(*shows, 1);
    }

    void addFolderAsksTheChooser() {
        sandbox->storeToken();
        launch();
        QPointer<QMenu> before = delegate->statusMenu();
        chooser->answer.reset();
        actionTitled(&menu(), QStringLiteral("Add Folder…"))->trigger();
        QCOMPARE(chooser->asked, 1);
        // Cancelled: nothing changed, nothing rebuilt.
        QCOMPARE(delegate->statusMenu(), before.data());
        QVERIFY(sandbox->state().folders().isEmpty());

        chooser->answer = sandbox->folder(QStringLiteral("Reports"));
        actionTitled(&menu(), QStringLiteral("Add Folder…"))->trigger();
        QCOMPARE(sandbox->state().folders().size(), 1);
        QAction* entry = actionTitled(&menu(), QStringLiteral("  \U0001F4C1 Reports"));
        QVERIFY(entry && entry->menu());
        QCOMPARE(entry->menu()->actions().at(0)->text(), *chooser->answer);
    }

    void reopenAlwaysBringsUpTheWindow() {
        sandbox->storeToken();
        launch();
        QCOMPARE(*shows, 0);
        QVERIFY(delegate->applicationShouldHandleReopen(false));
        QVERIFY(delegate->applicationShouldHandleReopen(true));
        QCOMPARE(*shows, 2);
    }

    void quitEndsTheApplication() {
        launch();
        actionTitled(&menu(), QStringLiteral("Quit Quillmar OS"))->trigger();
        QCOMPARE(terminations, 1);
    }

    void controlQInTheOpenMenuQuits() {
        launch();
        menu().popup(QPoint(10, 10));
        QTRY_VERIFY(menu().isVisible());
        QTest::keyClick(&menu(), Qt::Key_Q, Qt::ControlModifier);
        QCOMPARE(terminations, 1);
        menu().hide();
    }

    void mainMenuKeysWorkInEveryWindow() {
        launch();
        QCOMPARE(delegate->mainMenu().size(), 1);

        QWidget widgetWindow;
        auto* field = new QLineEdit(&widgetWindow);
        widgetWindow.show();
        QVERIFY(QTest::qWaitForWindowExposed(&widgetWindow));

        // Editing keys stay with the field.
        QTest::keyClicks(field, QStringLiteral("abc"));
        QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(field->selectedText(), QStringLiteral("abc"));
        QTest::keyClick(field, Qt::Key_X, Qt::ControlModifier);
        QCOMPARE(field->text(), QString());
        QTest::keyClick(field, Qt::Key_Z, Qt::ControlModifier);
        QCOMPARE(field->text(), QStringLiteral("abc"));
        QTest::keyClick(field, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(field->text(), QString());

        // Ctrl+Q quits from a text field too.
        QTest::keyClick(field, Qt::Key_Q, Qt::ControlModifier);
        QCOMPARE(terminations, 1);
        // A plain q is typing.
        QTest::keyClick(field, Qt::Key_Q);
        QCOMPARE(field->text(), QStringLiteral("q"));
        QCOMPARE(terminations, 1);

        // Ctrl+H hides the window the key was pressed in.
        QTest::keyClick(field, Qt::Key_H, Qt::ControlModifier);
        QVERIFY(!widgetWindow.isVisible());

        // The same for a window that is not a widget (the QML window is one).
        QWindow window;
        window.resize(100, 100);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTest::keyClick(&window, Qt::Key_H, Qt::ControlModifier);
        QVERIFY(!window.isVisible());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTest::keyClick(&window, Qt::Key_Q, Qt::ControlModifier);
        QCOMPARE(terminations, 2);
    }

    void aDeletedDelegateHearsNoMoreChanges() {
        launch();
        delegate.reset();
        emit sandbox->state().changed(); // must not touch the deleted delegate
        emit sandbox->state().bridge().statusChanged(false, QStringLiteral("Reconnecting in 2s…"));
    }
};

QUILLMAR_SHELL_TEST_MAIN(AppDelegateTest)
#include "tst_appdelegate.moc"
