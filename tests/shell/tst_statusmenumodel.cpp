#include "ActivityEntry.h"
#include "MainMenuModel.h"
#include "MenuItem.h"
#include "ShellTestMain.h"
#include "StatusMenuModel.h"

#include <QRegularExpression>

#include <QTest>
#include <algorithm>

namespace {

SharedFolder folder(const QString& name, const QString& path) {
    return SharedFolder{QUuid::createUuid(), name, path, std::nullopt};
}

QStringList titles(const QList<MenuItem>& items) {
    QStringList out;
    for (const MenuItem& item : items) {
        out.append(item.separator ? QStringLiteral("---") : item.title);
    }
    return out;
}

} // namespace

class StatusMenuModelTest : public QObject {
    Q_OBJECT

private slots:
    void unpairedLayout() {
        const StatusMenuModel model =
            StatusMenuModel::build(false, false, QStringLiteral("Not connected"), {}, true);
        QCOMPARE(MenuItem::describe(model.items),
                 (QStringList{
                     QStringLiteral("Quillmar OS — Not connected (disabled)"),
                     QStringLiteral("---"),
                     QStringLiteral("Set Up Quillmar OS… -> openSetup"),
                     QStringLiteral("---"),
                     QStringLiteral("Quit Quillmar OS -> quitTapped <q>"),
                 }));
        QCOMPARE(model.symbolName, QStringLiteral("externaldrive"));
    }

    void unpairedLayoutIgnoresFoldersAndApproval() {
        const StatusMenuModel model =
            StatusMenuModel::build(false, false, QStringLiteral("Not connected"),
                                   {folder(QStringLiteral("A"), QStringLiteral("/a"))}, false);
        QCOMPARE(titles(model.items),
                 (QStringList{QStringLiteral("Quillmar OS — Not connected"), QStringLiteral("---"),
                              QStringLiteral("Set Up Quillmar OS…"), QStringLiteral("---"),
                              QStringLiteral("Quit Quillmar OS")}));
    }

    void pairedWithoutFolders() {
        const StatusMenuModel model =
            StatusMenuModel::build(false, true, QStringLiteral("Not connected"), {}, true);
        QCOMPARE(MenuItem::describe(model.items),
                 (QStringList{
                     QStringLiteral("Quillmar OS — Not connected (disabled)"),
                     QStringLiteral("---"),
                     QStringLiteral("Shared Folders (disabled)"),
                     QStringLiteral("  (none yet — add one below) (disabled)"),
                     QStringLiteral("Add Folder… -> addFolderTapped"),
                     QStringLiteral("Open Quillmar OS Window… -> openSetup"),
                     QStringLiteral("Recent Activity"),
                     QStringLiteral("    (nothing yet) (disabled)"),
                     QStringLiteral("---"),
                     QStringLiteral("Ask before writing files [x] -> toggleApproval"),
                     QStringLiteral("Pause Sharing -> togglePause"),
                     QStringLiteral("Unpair this computer -> unpairTapped"),
                     QStringLiteral("---"),
                     QStringLiteral("Quit Quillmar OS -> quitTapped <q>"),
                 }));
        // Two leading spaces, and nothing to click.
        const MenuItem& none = model.items.at(3);
        QVERIFY(none.title.startsWith(QStringLiteral("  (")));
        QVERIFY(!none.enabled);
        QCOMPARE(none.action, MenuAction::None);
    }

    void pairedWithFolders() {
        const SharedFolder docs = folder(QStringLiteral("Docs"), QStringLiteral("/home/u/Docs"));
        const SharedFolder notes =
            folder(QStringLiteral("Notes 2"), QStringLiteral("/home/u/work/Notes"));
        const StatusMenuModel model = StatusMenuModel::build(
            true, true, QStringLiteral("Connected to Quillmar"), {docs, notes}, false);
        const QString docsId = docs.id.toString(QUuid::WithoutBraces).toUpper();
        const QString notesId = notes.id.toString(QUuid::WithoutBraces).toUpper();
        QCOMPARE(MenuItem::describe(model.items),
                 (QStringList{
                     QStringLiteral("Quillmar OS — Connected (disabled)"),
                     QStringLiteral("---"),
                     QStringLiteral("Shared Folders (disabled)"),
                     QStringLiteral("  \U0001F4C1 Docs"),
                     QStringLiteral("    /home/u/Docs (disabled)"),
                     QStringLiteral("    ---"),
                     QStringLiteral("    Read Only [ ] -> toggleReadOnlyTapped {") + docsId + u'}',
                     QStringLiteral("    Stop sharing this folder -> removeFolderTapped {") +
                         docsId + u'}',
                     QStringLiteral("  \U0001F4C1 Notes 2"),
                     QStringLiteral("    /home/u/work/Notes (disabled)"),
                     QStringLiteral("    ---"),
                     QStringLiteral("    Read Only [ ] -> toggleReadOnlyTapped {") + notesId + u'}',
                     QStringLiteral("    Stop sharing this folder -> removeFolderTapped {") +
                         notesId + u'}',
                     QStringLiteral("Add Folder… -> addFolderTapped"),
                     QStringLiteral("Open Quillmar OS Window… -> openSetup"),
                     QStringLiteral("Recent Activity"),
                     QStringLiteral("    (nothing yet) (disabled)"),
                     QStringLiteral("---"),
                     QStringLiteral("Ask before writing files [ ] -> toggleApproval"),
                     QStringLiteral("Pause Sharing -> togglePause"),
                     QStringLiteral("Unpair this computer -> unpairTapped"),
                     QStringLiteral("---"),
                     QStringLiteral("Quit Quillmar OS -> quitTapped <q>"),
                 }));
        // The folder entry opens its submenu and carries nothing itself.
        const MenuItem& entry = model.items.at(3);
        QVERIFY(entry.enabled);
        QCOMPARE(entry.action, MenuAction::None);
        QVERIFY(entry.representedObject.isNull());
        // The id is a string: canonical, upper-case, 36 characters.
        const QVariant id = entry.submenu.at(3).representedObject;
        QCOMPARE(id.typeId(), int(QMetaType::QString));
        QCOMPARE(id.toString().size(), 36);
        QCOMPARE(id.toString(), id.toString().toUpper());
    }

    void twoFoldersWithTheSamePathAreTwoEntries() {
        const SharedFolder first = folder(QStringLiteral("Docs"), QStringLiteral("/d"));
        const SharedFolder second = folder(QStringLiteral("Docs 2"), QStringLiteral("/d"));
        const StatusMenuModel model =
            StatusMenuModel::build(true, true, QString(), {first, second}, true);
        const MenuItem& a = model.items.at(3);
        const MenuItem& b = model.items.at(4);
        QCOMPARE(a.submenu.at(0).title, QStringLiteral("/d"));
        QCOMPARE(b.submenu.at(0).title, QStringLiteral("/d"));
        for (const qsizetype i : {2, 3}) {
            QCOMPARE(a.submenu.at(i).representedObject.toString(), first.idString());
            QCOMPARE(b.submenu.at(i).representedObject.toString(), second.idString());
            QVERIFY(a.submenu.at(i).representedObject != b.submenu.at(i).representedObject);
        }
    }

    void offlineHeaderShowsTheBridgeText() {
        const QString reconnecting = QStringLiteral("Reconnecting in 4s\u2026");
        const StatusMenuModel model = StatusMenuModel::build(false, true, reconnecting, {}, true);
        QCOMPARE(model.header, QStringLiteral("Quillmar OS — Reconnecting in 4s…"));
        QCOMPARE(model.items.front().title, model.header);
        QVERIFY(!model.items.front().enabled);
        QCOMPARE(model.symbolName, QStringLiteral("externaldrive"));
    }

    void offlineMenuSaysWhyOnALineOfItsOwn() {
        const QString why = QStringLiteral("The service's certificate is not trusted.");
        const StatusMenuModel model = StatusMenuModel::build(
            false, true, QStringLiteral("Reconnecting in 8s\u2026"), {}, true, why);
        QCOMPARE(model.items.at(1).title, why);
        QVERIFY(!model.items.at(1).enabled);
        QVERIFY(model.items.at(2).separator);
        QCOMPARE(model.toolTip(), QStringLiteral("Quillmar OS — Reconnecting in 8s\u2026\n") + why);
        // Online, there is nothing to explain.
        const StatusMenuModel online = StatusMenuModel::build(
            true, true, QStringLiteral("Connected to Quillmar"), {}, true, why);
        QVERIFY(online.problem.isEmpty());
        QVERIFY(online.items.at(1).separator);
    }

    void offlineHeaderTakesAnyTextAsItStands() {
        QCOMPARE(StatusMenuModel::build(false, true, QString(), {}, true).header,
                 QStringLiteral("Quillmar OS — "));
        QCOMPARE(StatusMenuModel::build(false, false, QStringLiteral("a\nb"), {}, true).header,
                 QStringLiteral("Quillmar OS — a\nb"));
    }

    void onlineHeaderSaysConnected() {
        const StatusMenuModel model =
            StatusMenuModel::build(true, true, QStringLiteral("Connected to Quillmar"), {}, true);
        QCOMPARE(model.header, QStringLiteral("Quillmar OS — Connected"));
        QCOMPARE(model.symbolName, QStringLiteral("externaldrive.fill.badge.checkmark"));
        QCOMPARE(model.buttonTitle, QStringLiteral(" Quillmar OS"));
        QCOMPARE(model.toolTip(), QStringLiteral("Quillmar OS — Connected"));
    }

    void approvalCheckFollowsTheSetting() {
        for (const bool on : {true, false}) {
            const StatusMenuModel model = StatusMenuModel::build(false, true, QString(), {}, on);
            const MenuItem& approval = model.items.at(8);
            QCOMPARE(approval.title, QStringLiteral("Ask before writing files"));
            QVERIFY(approval.checkable);
            QCOMPARE(approval.checked, on);
            QVERIFY(approval.enabled);
        }
    }

    void onlyQuitHasAKey() {
        const StatusMenuModel model = StatusMenuModel::build(
            true, true, QString(), {folder(QStringLiteral("A"), QStringLiteral("/a"))}, true);
        for (const MenuItem& item : model.items) {
            QCOMPARE(item.key, item.action == MenuAction::Quit ? QStringLiteral("q") : QString());
            for (const MenuItem& sub : item.submenu) {
                QVERIFY(sub.key.isEmpty());
            }
        }
        QCOMPARE(model.items.back().shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
    }

    void titlesUseTheRealCharacters() {
        const StatusMenuModel model = StatusMenuModel::build(
            false, true, QString(), {folder(QStringLiteral("A"), QStringLiteral("/a"))}, true);
        const QString setUp =
            StatusMenuModel::build(false, false, QString(), {}, true).items.at(2).title;
        QCOMPARE(setUp.back(), QChar(0x2026));
        QCOMPARE(model.items.at(0).title.at(12), QChar(0x2014));
        const QString entry = model.items.at(3).title;
        QCOMPARE(entry.left(2), QStringLiteral("  "));
        QCOMPARE(entry.toUcs4().at(2), char32_t(0x1F4C1));
        QCOMPARE(entry.mid(4), QStringLiteral(" A"));
        // No ellipsis although it acts at once.
        QCOMPARE(model.items.at(10).title, QStringLiteral("Unpair this computer"));
    }

    // Every title of every layout, and the tool tip: the Linux build names no Mac and no menu bar.
    void menusSpeakOfThisComputer() {
        const QRegularExpression mac(QStringLiteral("\\bMac\\b|[Mm]enu bar"));
        const QList<SharedFolder> folders{folder(QStringLiteral("A"), QStringLiteral("/a"))};
        QStringList seen;
        for (bool paired : {false, true}) {
            for (bool online : {false, true}) {
                const StatusMenuModel model = StatusMenuModel::build(
                    online, paired, QStringLiteral("Not connected"), folders, true);
                seen.append(model.toolTip());
                seen.append(MenuItem::describe(model.items));
            }
        }
        QVERIFY(seen.contains(QStringLiteral("Unpair this computer -> unpairTapped")));
        for (const QString& text : seen) {
            QVERIFY2(!mac.match(text).hasMatch(), qPrintable(text));
        }
    }

    void readOnlyIsCheckedPerFolder() {
        SharedFolder docs = folder(QStringLiteral("Docs"), QStringLiteral("/home/u/Docs"));
        docs.readOnly = true;
        const SharedFolder notes = folder(QStringLiteral("Notes"), QStringLiteral("/home/u/Notes"));
        const StatusMenuModel model =
            StatusMenuModel::build(true, true, QString(), {docs, notes}, true);
        const MenuItem& docsReadOnly = model.items.at(3).submenu.at(2);
        const MenuItem& notesReadOnly = model.items.at(4).submenu.at(2);
        for (const MenuItem* item : {&docsReadOnly, &notesReadOnly}) {
            QCOMPARE(item->title, QStringLiteral("Read Only"));
            QCOMPARE(item->action, MenuAction::ToggleReadOnly);
            QVERIFY(item->checkable);
            QVERIFY(item->enabled);
        }
        QVERIFY(docsReadOnly.checked);
        QVERIFY(!notesReadOnly.checked);
        QCOMPARE(docsReadOnly.representedObject.toString(), docs.idString());
        QCOMPARE(notesReadOnly.representedObject.toString(), notes.idString());
    }

    void pauseItemFollowsTheState() {
        const StatusMenuModel running = StatusMenuModel::build(
            true, true, QStringLiteral("Connected to Quillmar"), {}, true, QString(), false);
        QStringList lines = MenuItem::describe(running.items);
        QVERIFY(lines.contains(QStringLiteral("Pause Sharing -> togglePause")));
        QVERIFY(!lines.contains(QStringLiteral("Resume Sharing -> togglePause")));
        // Next to the approval setting.
        QCOMPARE(lines.indexOf(QStringLiteral("Pause Sharing -> togglePause")),
                 lines.indexOf(QStringLiteral("Ask before writing files [x] -> toggleApproval")) +
                     1);

        const StatusMenuModel paused = StatusMenuModel::build(
            false, true, QStringLiteral("Paused"), {}, true, QStringLiteral("ignored"), true);
        lines = MenuItem::describe(paused.items);
        QVERIFY(lines.contains(QStringLiteral("Resume Sharing -> togglePause")));
        QVERIFY(!lines.contains(QStringLiteral("Pause Sharing -> togglePause")));
        QCOMPARE(paused.header, QStringLiteral("Quillmar OS — Paused"));

        // Not paired: nothing to pause.
        const StatusMenuModel unpaired = StatusMenuModel::build(
            false, false, QStringLiteral("Paused"), {}, true, QString(), true);
        for (const QString& line : MenuItem::describe(unpaired.items)) {
            QVERIFY2(!line.contains(QStringLiteral("Sharing")), qPrintable(line));
        }
    }

    void recentActivityListsTheLatestFiveNewestFirst() {
        QList<ActivityEntry> recent;
        const QDateTime start = QDateTime::currentDateTime();
        for (int i = 7; i >= 1; --i) {
            ActivityEntry entry;
            entry.time = start.addSecs(i);
            entry.tool = QStringLiteral("local_read_file");
            entry.subject = QStringLiteral("Docs/file-%1.txt").arg(i);
            entry.bytes = 2048;
            recent.append(entry);
        }
        ActivityEntry& failed = recent[1];
        failed.outcome = ActivityEntry::Outcome::Failed;
        failed.error = QStringLiteral("No such file");
        failed.bytes = -1;
        ActivityEntry& declined = recent[2];
        declined.tool = QStringLiteral("local_write_file");
        declined.outcome = ActivityEntry::Outcome::Declined;
        declined.bytes = -1;

        const StatusMenuModel model =
            StatusMenuModel::build(true, true, QString(), {}, true, QString(), false, recent);
        const auto found = std::find_if(model.items.cbegin(), model.items.cend(), [](auto& item) {
            return item.title == QStringLiteral("Recent Activity");
        });
        QVERIFY(found != model.items.cend());
        QVERIFY(found->enabled);
        QCOMPARE(found->action, MenuAction::None);
        QCOMPARE(found->submenu.size(), StatusMenuModel::recentActivityCount);
        const auto time = [&](int i) {
            return recent.at(i).time.toString(QStringLiteral("HH:mm:ss"));
        };
        QStringList titles;
        for (const MenuItem& line : found->submenu) {
            QVERIFY(!line.enabled);
            QCOMPARE(line.action, MenuAction::None);
            titles.append(line.title);
        }
        QCOMPARE(titles, (QStringList{
                             time(0) + QStringLiteral("  Read  Docs/file-7.txt  read 2.0 KiB"),
                             time(1) + QStringLiteral("  Read  Docs/file-6.txt  failed"),
                             time(2) + QStringLiteral("  Write  Docs/file-5.txt  declined"),
                             time(3) + QStringLiteral("  Read  Docs/file-4.txt  read 2.0 KiB"),
                             time(4) + QStringLiteral("  Read  Docs/file-3.txt  read 2.0 KiB"),
                         }));
    }

    void recentActivityKeepsLongPathsShort() {
        ActivityEntry entry;
        entry.time = QDateTime::currentDateTime();
        entry.tool = QStringLiteral("local_write_file");
        entry.subject =
            QStringLiteral("Clients/") + QString(200, u'x') + QStringLiteral("/end.txt");
        entry.bytes = 12;
        entry.versionId = QStringLiteral("7");
        entry.restored = true;
        const StatusMenuModel model =
            StatusMenuModel::build(true, true, QString(), {}, true, QString(), false, {entry});
        const QString line = model.items.at(6).submenu.at(0).title;
        QVERIFY2(line.size() < 100, qPrintable(line));
        QVERIFY(line.contains(QStringLiteral("  Wrote  Clients/")));
        QVERIFY(line.contains(QStringLiteral("\u2026xxx")));
        QVERIFY(line.endsWith(QStringLiteral("/end.txt  wrote 12 bytes (restored)")));
    }

    void mainMenu() {
        const QList<MenuItem> menus = MainMenuModel::build();
        QCOMPARE(menus.size(), 1);
        QCOMPARE(menus.at(0).title, QString());
        QCOMPARE(
            MenuItem::describe(menus.at(0).submenu),
            (QStringList{QStringLiteral("Hide Quillmar OS -> hide: <h>"), QStringLiteral("---"),
                         QStringLiteral("Quit Quillmar OS -> terminate: <q>")}));
    }

    void keysBecomeControlShortcuts() {
        QCOMPARE(MenuItem::shortcutFor(QStringLiteral("q")), QKeySequence(Qt::CTRL | Qt::Key_Q));
        QCOMPARE(MenuItem::shortcutFor(QStringLiteral("h")), QKeySequence(Qt::CTRL | Qt::Key_H));
        QCOMPARE(MenuItem::shortcutFor(QStringLiteral("Z")),
                 QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z));
        QCOMPARE(MenuItem::shortcutFor(QString()), QKeySequence());
        QCOMPARE(MenuItem::shortcutFor(QStringLiteral("qq")), QKeySequence());
    }
};

QUILLMAR_SHELL_TEST_MAIN(StatusMenuModelTest)
#include "tst_statusmenumodel.moc"
