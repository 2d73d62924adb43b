#include "ActivityLog.h"
#include "AppState.h"
#include "FileDescriptor.h"
#include "FileState.h"
#include "ViewHarness.h"

#include <QAbstractItemModelTester>
#include <QFile>
#include <QFileInfo>
#include <QQmlContext>
#include <QQmlProperty>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

// The recent-activity page: reached from the home page, following the state's activity log as
// calls arrive, and putting back the previous version of an agent's write.
class ActivityViewTest : public QObject {
    Q_OBJECT

    static AppState& startOnActivity(ViewHarness& harness) {
        harness.storeToken();
        AppState& state = harness.start();
        harness.click(QStringLiteral("activityButton"));
        if (!harness.item(QStringLiteral("activityView"))->isVisible()) {
            QTest::qFail("the activity page is not shown", __FILE__, __LINE__);
        }
        return state;
    }

    static ActivityEntry entry(const QString& tool, const QString& subject,
                               ActivityEntry::Outcome outcome = ActivityEntry::Outcome::Done) {
        ActivityEntry made;
        made.time = QDateTime::currentDateTime();
        made.tool = tool;
        made.subject = subject;
        made.outcome = outcome;
        return made;
    }

    // The list's rows as shown, top to bottom.
    static QList<QQuickItem*> rows(ViewHarness& harness) {
        QList<QQuickItem*> found = harness.items(QStringLiteral("activityRow"));
        found.removeIf([](QQuickItem* row) { return !row->isVisible(); });
        std::sort(found.begin(), found.end(), [](QQuickItem* a, QQuickItem* b) {
            return a->mapToScene(QPointF()).y() < b->mapToScene(QPointF()).y();
        });
        return found;
    }

    static QString textIn(QQuickItem* row, const char* name) {
        QQuickItem* found = ViewHarness::find(row, QString::fromLatin1(name));
        return found ? found->property("text").toString() : QStringLiteral("<none>");
    }

    static QQuickItem* restoreButtonIn(QQuickItem* row) {
        QQuickItem* button = ViewHarness::find(row, QStringLiteral("restoreButton"));
        return button && button->isVisible() ? button : nullptr;
    }

    // Keeps what `path` holds as a real version in the state's store, then overwrites it with
    // `next`, as an agent's write does; returns the version's id.
    static QString keepAndOverwrite(AppState& state, const QString& path, const QString& agentPath,
                                    const QByteArray& next) {
        FileDescriptor previous(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC));
        struct stat before {};
        if (!previous.valid() || ::fstat(previous.get(), &before) != 0) {
            return QString();
        }
        const VersionStore::Kept kept =
            state.versions().keep(agentPath, QFile::encodeName(QFileInfo(path).canonicalFilePath()),
                                  previous.get(), FileState::of(before));
        QFile file(path);
        if (kept.id.isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            return QString();
        }
        file.write(next);
        file.close();
        struct stat after {};
        if (::stat(QFile::encodeName(path).constData(), &after) != 0) {
            return QString();
        }
        state.versions().finish(kept.id, FileState::of(after));
        return kept.id;
    }

    static QByteArray contents(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
    }

private slots:
    void theHomePageLeadsThereAndBack() {
        ViewHarness harness;
        startOnActivity(harness);
        QVERIFY(!harness.item(QStringLiteral("folderList"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("unpairButton"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("activityBackButton"))->hasActiveFocus());
        QCOMPARE(harness.value(QStringLiteral("activityTitle"), "text").toString(),
                 QStringLiteral("Recent activity"));

        harness.click(QStringLiteral("activityBackButton"));
        QVERIFY(!harness.item(QStringLiteral("activityView"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("unpairButton"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("activityButton"))->hasActiveFocus());

        // By keyboard: the focused button opens the page again, Escape goes back, and Enter
        // on the focused button opens it once more.
        QTest::keyClick(harness.window(), Qt::Key_Space);
        ViewHarness::settle();
        QVERIFY(harness.item(QStringLiteral("activityView"))->isVisible());
        QTest::keyClick(harness.window(), Qt::Key_Escape);
        ViewHarness::settle();
        QVERIFY(!harness.item(QStringLiteral("activityView"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("activityButton"))->hasActiveFocus());
        harness.pressReturn();
        QVERIFY(harness.item(QStringLiteral("activityView"))->isVisible());
    }

    void nothingYetSaysSo() {
        ViewHarness harness;
        startOnActivity(harness);
        QVERIFY(harness.item(QStringLiteral("activityEmpty"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("activityList"))->isVisible());
        QVERIFY(harness.value(QStringLiteral("activityEmptyText"), "text")
                    .toString()
                    .startsWith(QStringLiteral("Nothing yet.")));
        QVERIFY(!harness.item(QStringLiteral("restoreNotice"))->isVisible());
    }

    void callsAppearAsTheyHappenNewestFirst() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        QAbstractItemModelTester tester(
            harness.value(QStringLiteral("activityList"), "model").value<QAbstractItemModel*>(),
            QAbstractItemModelTester::FailureReportingMode::QtTest);

        ActivityEntry read = entry(QStringLiteral("local_read_file"), QStringLiteral("Docs/a.txt"));
        read.bytes = 1536;
        state.activity().append(read);
        ViewHarness::settle();
        QVERIFY(!harness.item(QStringLiteral("activityEmpty"))->isVisible());
        QList<QQuickItem*> shown = rows(harness);
        QCOMPARE(shown.size(), 1);
        QCOMPARE(textIn(shown[0], "activityTool"), QStringLiteral("Read"));
        QCOMPARE(textIn(shown[0], "activitySubject"), QStringLiteral("Docs/a.txt"));
        QCOMPARE(textIn(shown[0], "activityDetail"), QStringLiteral("read 1.5 KiB"));
        QCOMPARE(textIn(shown[0], "activityTime"), read.time.toString(QStringLiteral("HH:mm:ss")));

        ActivityEntry failed =
            entry(QStringLiteral("local_list_files"), QStringLiteral("Docs/missing"),
                  ActivityEntry::Outcome::Failed);
        failed.error = QStringLiteral("No such folder: Docs/missing");
        state.activity().append(failed);
        ActivityEntry search =
            entry(QStringLiteral("local_search_files"), QStringLiteral("invoice"));
        search.items = 3;
        state.activity().append(search);
        ViewHarness::settle();

        shown = rows(harness);
        QCOMPARE(shown.size(), 3);
        QCOMPARE(textIn(shown[0], "activityTool"), QStringLiteral("Searched"));
        QCOMPARE(textIn(shown[0], "activityDetail"), QStringLiteral("3 items"));
        QCOMPARE(textIn(shown[1], "activityTool"), QStringLiteral("List"));
        QCOMPARE(textIn(shown[1], "activityDetail"),
                 QStringLiteral("No such folder: Docs/missing"));
        QCOMPARE(textIn(shown[2], "activitySubject"), QStringLiteral("Docs/a.txt"));
        // Failures stand out: their own symbol and colour.
        QQuickItem* failedSymbol =
            ViewHarness::find(shown[1], QStringLiteral("activityOutcomeSymbol"));
        QQuickItem* doneSymbol =
            ViewHarness::find(shown[0], QStringLiteral("activityOutcomeSymbol"));
        QVERIFY(failedSymbol->property("name") != doneSymbol->property("name"));
        QCOMPARE(ViewHarness::find(shown[1], QStringLiteral("activityDetail"))
                     ->property("color")
                     .value<QColor>(),
                 QColor(QStringLiteral("#ff3b30")));
    }

    void theOldestGoesWhenTheLogIsFull() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        auto* model =
            harness.value(QStringLiteral("activityList"), "model").value<QAbstractItemModel*>();
        QVERIFY(model);
        QAbstractItemModelTester tester(model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        const auto subject = [&](int row) {
            return model->data(model->index(row, 0), Qt::DisplayRole).toString();
        };
        for (qsizetype i = 0; i < ActivityLog::defaultCapacity + 2; ++i) {
            state.activity().append(
                entry(QStringLiteral("local_read_file"), QStringLiteral("f%1").arg(i)));
        }
        QCOMPARE(model->rowCount(), int(ActivityLog::defaultCapacity));
        QCOMPARE(subject(0), QStringLiteral("f%1").arg(ActivityLog::defaultCapacity + 1));
        QCOMPARE(subject(int(ActivityLog::defaultCapacity) - 1), QStringLiteral("f2"));
        ViewHarness::settle();
        QCOMPARE(textIn(rows(harness).value(0), "activitySubject"),
                 QStringLiteral("f%1").arg(ActivityLog::defaultCapacity + 1));
    }

    void longPathsAreElidedInTheMiddle() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        QString path = QStringLiteral("Clients");
        for (int i = 0; i < 10; ++i) {
            path += QStringLiteral("/a-rather-long-folder-name-%1").arg(i);
        }
        path += QStringLiteral("/report.pdf");
        state.activity().append(entry(QStringLiteral("local_read_file"), path));
        ViewHarness::settle();
        QQuickItem* row = rows(harness).value(0);
        QVERIFY(row);
        QQuickItem* text = ViewHarness::find(row, QStringLiteral("activitySubject"));
        QCOMPARE(text->property("text").toString(), path);
        QVERIFY(text->property("truncated").toBool());
        QCOMPARE(text->property("elide").toInt(), int(Qt::ElideMiddle));
        QCOMPARE(text->property("lineCount").toInt(), 1);
        // The time stays in the row.
        QQuickItem* time = ViewHarness::find(row, QStringLiteral("activityTime"));
        QVERIFY(time->mapToItem(row, QPointF(time->width(), 0)).x() <= row->width());
        QVERIFY(time->property("text").toString().size() == 8);
    }

    // What an agent chose is shown as text: markup stays markup, control and direction
    // characters are shown rather than obeyed, and the agent is named even when it failed.
    void agentsTextIsShownNotObeyed() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        ActivityEntry failed =
            entry(QStringLiteral("local_read_file"),
                  QStringLiteral("Docs/<img src=\"http://127.0.0.1:9/x\">\u202Etxt.exe\x1b[2J"),
                  ActivityEntry::Outcome::Failed);
        failed.error = QStringLiteral("File not found: <b>x</b>\nnext");
        failed.agent = QStringLiteral("Local agent: <i>Editor</i>");
        state.activity().append(failed);
        ViewHarness::settle();
        QQuickItem* row = rows(harness).value(0);
        QVERIFY(row);
        QQuickItem* subject = ViewHarness::find(row, QStringLiteral("activitySubject"));
        QCOMPARE(subject->property("text").toString(),
                 QStringLiteral("Docs/<img src=\"http://127.0.0.1:9/x\">\u27e8U+202E\u27e9txt.exe"
                                "\u241b[2J"));
        QCOMPARE(subject->property("textFormat").toInt(), int(Qt::PlainText));
        QQuickItem* detail = ViewHarness::find(row, QStringLiteral("activityDetail"));
        QCOMPARE(detail->property("textFormat").toInt(), int(Qt::PlainText));
        QCOMPARE(
            detail->property("text").toString(),
            QStringLiteral("File not found: <b>x</b>\u2424next \u00b7 Local agent: <i>Editor</i>"));
    }

    void onlyKeptWritesOfferARestore() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        ActivityEntry kept =
            entry(QStringLiteral("local_write_file"), QStringLiteral("Docs/k.txt"));
        kept.bytes = 10;
        kept.versionId = QStringLiteral("41");
        ActivityEntry restored = kept;
        restored.subject = QStringLiteral("Docs/r.txt");
        restored.versionId = QStringLiteral("40");
        restored.restored = true;
        ActivityEntry unkept = kept;
        unkept.subject = QStringLiteral("Docs/u.txt");
        unkept.versionId.clear();
        unkept.versionNote = QStringLiteral("previous version not kept: it is too large");
        const ActivityEntry declined =
            entry(QStringLiteral("local_write_file"), QStringLiteral("Docs/d.txt"),
                  ActivityEntry::Outcome::Declined);
        ActivityEntry read = entry(QStringLiteral("local_read_file"), QStringLiteral("Docs/k.txt"));
        read.bytes = 10;
        for (const ActivityEntry& each : {read, declined, unkept, restored, kept}) {
            state.activity().append(each);
        }
        ViewHarness::settle();
        const QList<QQuickItem*> shown = rows(harness);
        QCOMPARE(shown.size(), 5);
        QCOMPARE(textIn(shown[0], "activitySubject"), QStringLiteral("Docs/k.txt"));
        QQuickItem* button = restoreButtonIn(shown[0]);
        QVERIFY(button);
        QCOMPARE(button->property("text").toString(), QStringLiteral("Restore previous version"));
        QVERIFY(QQmlProperty::read(button, QStringLiteral("Accessible.name"), qmlContext(button))
                    .toString()
                    .contains(QStringLiteral("Docs/k.txt")));
        for (int i = 1; i < 5; ++i) {
            QVERIFY2(!restoreButtonIn(shown[i]), qPrintable(textIn(shown[i], "activitySubject")));
        }
        QCOMPARE(textIn(shown[1], "activityDetail"),
                 QStringLiteral("wrote 10 bytes \u00b7 previous version restored"));
        QCOMPARE(
            textIn(shown[2], "activityDetail"),
            QStringLiteral("wrote 10 bytes \u00b7 previous version not kept: it is too large"));
        QCOMPARE(textIn(shown[3], "activityTool"), QStringLiteral("Write"));
        QCOMPARE(textIn(shown[3], "activityDetail"), QStringLiteral("Declined on this computer"));
    }

    void restoringPutsTheFileBackAndSaysSo() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        harness.addFolder(QStringLiteral("Docs"));
        const QString path =
            harness.folderPath(QStringLiteral("Docs")) + QStringLiteral("/notes.txt");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("before the agent");
        file.close();
        const QString id =
            keepAndOverwrite(state, path, QStringLiteral("Docs/notes.txt"), "the agent's text");
        QVERIFY(!id.isEmpty());
        QCOMPARE(contents(path), QByteArray("the agent's text"));

        ActivityEntry write =
            entry(QStringLiteral("local_write_file"), QStringLiteral("Docs/notes.txt"));
        write.bytes = 16;
        write.versionId = id;
        state.activity().append(write);
        ViewHarness::settle();
        QQuickItem* button = restoreButtonIn(rows(harness).value(0));
        QVERIFY(button);
        harness.click(button);

        QTRY_COMPARE(contents(path), QByteArray("before the agent"));
        QTRY_VERIFY(harness.item(QStringLiteral("restoreNotice"))->isVisible());
        const QString message =
            harness.value(QStringLiteral("restoreNoticeText"), "text").toString();
        QVERIFY2(message.contains(QStringLiteral("Docs/notes.txt")), qPrintable(message));
        QVERIFY(harness.value(QStringLiteral("restoreNoticeText"), "color").value<QColor>() !=
                QColor(QStringLiteral("#ff3b30")));
        QVERIFY(state.activity().at(0).restored);
        QVERIFY(!restoreButtonIn(rows(harness).value(0)));
        QCOMPARE(textIn(rows(harness).value(0), "activityDetail"),
                 QStringLiteral("wrote 16 bytes \u00b7 previous version restored"));

        harness.click(QStringLiteral("dismissNoticeButton"));
        QVERIFY(!harness.item(QStringLiteral("restoreNotice"))->isVisible());
    }

    void aFailedRestoreSaysWhatHappened() {
        ViewHarness harness;
        AppState& state = startOnActivity(harness);
        harness.addFolder(QStringLiteral("Docs"));
        const QString path =
            harness.folderPath(QStringLiteral("Docs")) + QStringLiteral("/plan.txt");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("v1");
        file.close();
        const QString id = keepAndOverwrite(state, path, QStringLiteral("Docs/plan.txt"), "v2");
        QVERIFY(!id.isEmpty());
        // Someone deletes the file after the agent's write: there is nothing to put back into.
        QVERIFY(QFile::remove(path));

        ActivityEntry write =
            entry(QStringLiteral("local_write_file"), QStringLiteral("Docs/plan.txt"));
        write.bytes = 2;
        write.versionId = id;
        state.activity().append(write);
        ViewHarness::settle();
        harness.click(restoreButtonIn(rows(harness).value(0)));

        QTRY_VERIFY(harness.item(QStringLiteral("restoreNotice"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("restoreNoticeText"), "text").toString(),
                 QStringLiteral("Docs/plan.txt has been moved or deleted since the agent wrote it, "
                                "so it was not restored."));
        QCOMPARE(harness.value(QStringLiteral("restoreNoticeText"), "color").value<QColor>(),
                 QColor(QStringLiteral("#ff3b30")));
        QVERIFY(!QFile::exists(path));
        // Still offered: the user may put the file back and try again.
        QVERIFY(!state.activity().at(0).restored);
        QQuickItem* button = restoreButtonIn(rows(harness).value(0));
        QVERIFY(button);
        QVERIFY(button->isEnabled());
    }
};

QTEST_MAIN(ActivityViewTest)
#include "tst_activityview.moc"
