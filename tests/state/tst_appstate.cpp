#include "AppSettings.h"
#include "AppState.h"
#include "ApprovalPrompt.h"
#include "FolderChooser.h"
#include "FolderStore.h"
#include "Keychain.h"
#include "RecordingHttpServer.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QCoroTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

class ScriptedChooser : public FolderChooser {
public:
    std::optional<QString> answer;
    QCoro::Task<std::optional<QString>> chooseFolder(QString, QString) override {
        // A copy: GCC 12 moves from a member named in co_return.
        const std::optional<QString> given = answer;
        co_return given;
    }
};

// Answers only after a while, as a dialog or a desktop portal does.
class SlowChooser : public FolderChooser {
public:
    QString answer;
    int asked = 0;
    QCoro::Task<std::optional<QString>> chooseFolder(QString, QString) override {
        ++asked;
        QTimer later;
        later.setSingleShot(true);
        later.start(50);
        co_await later;
        const std::optional<QString> given = answer;
        co_return given;
    }
};

class ScriptedPrompt : public ApprovalPrompt {
public:
    bool answer = false;
    QStringList asked;
    QCoro::Task<bool> ask(QString path, qint64 bytes) override {
        asked.append(informativeText(path, bytes));
        co_return answer;
    }
};

const QByteArray okClaim =
    R"({"device_token":"tok-QmSecret-1","device_id":"dev-1","org_id":"org-1"})";

} // namespace

class AppStateTest : public QObject {
    Q_OBJECT

    std::unique_ptr<TempTree> home;
    std::shared_ptr<ScriptedChooser> chooser;
    std::shared_ptr<ScriptedPrompt> prompt;
    std::unique_ptr<AppState> running;
    int changes = 0;

    // A state as a new start makes it, from what is stored; the bridge enabled.
    AppState& freshState(bool withPrompt = true) {
        running.reset();
        running = std::make_unique<AppState>(
            AppServices{withPrompt ? prompt : nullptr, chooser, keychain()});
        changes = 0;
        connect(running.get(), &AppState::changed, this, [this] { ++changes; });
        return *running;
    }

    static Keychain keychain() { return Keychain(Keychain::Backend::TokenFile); }
    void storeToken(const QString& token) {
        QCOMPARE(QCoro::waitFor(keychain().saveToken(token)), std::nullopt);
    }
    static std::optional<QString> storedToken() {
        const TokenLookup lookup = QCoro::waitFor(keychain().loadToken());
        return lookup.error ? QStringLiteral("<unreadable>") : lookup.token;
    }

private slots:

    void init() {
        home = std::make_unique<TempTree>();
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home->dir(QStringLiteral("config"))));
        qputenv("XDG_DATA_HOME", QFile::encodeName(home->dir(QStringLiteral("data"))));
        qunsetenv("QUILLMAR_API");
        chooser = std::make_shared<ScriptedChooser>();
        prompt = std::make_shared<ScriptedPrompt>();
    }

    void cleanup() { running.reset(); }

    void initialValuesWithoutAnything() {
        AppState& state = freshState();
        QCOMPARE(state.apiBase(), AppState::defaultApiBase());
        QVERIFY(state.apiBase().startsWith(QStringLiteral("https://")));
        QVERIFY(!state.apiBase().endsWith(u'/'));
        QVERIFY(!state.online());
        QVERIFY(!state.paired());
        QCOMPARE(state.statusText(), QStringLiteral("Not connected"));
        QVERIFY(state.folders().isEmpty());
        QVERIFY(!state.pairing());
        QVERIFY(!state.pairError());
        QVERIFY(state.requireWriteApproval());
    }

    void emptyApiVariableIsTakenAsItStands() {
        qputenv("QUILLMAR_API", "");
        QCOMPARE(freshState().apiBase(), QString());
        qputenv("QUILLMAR_API", " http://x ");
        QCOMPARE(freshState().apiBase(), QStringLiteral(" http://x "));
    }

    void approvalSettingFromStore() {
        AppSettings::setBoolean(QStringLiteral("require_write_approval"), false);
        QVERIFY(!freshState().requireWriteApproval());
        auto settings = AppSettings::open();
        settings->setValue(QStringLiteral("require_write_approval"), QStringLiteral("nope"));
        settings->sync();
        QVERIFY(freshState().requireWriteApproval());
    }

    void withoutTokenTheBridgeStaysIdle() {
        AppState& state = freshState();
        QTest::qWait(100);
        QVERIFY(!state.paired());
        QCOMPARE(state.statusText(), QStringLiteral("Not connected"));
        QCOMPARE(changes, 0);
    }

    void storedTokenPairsAndConnectsAtLaunch() {
        storeToken(QStringLiteral("tok-QmSecret-0"));
        qputenv("QUILLMAR_API",
                "http://127.0.0.1:1"); // nothing listens: the bridge reports and retries
        AppState& state = freshState();
        QVERIFY(state.paired());
        QTRY_VERIFY_WITH_TIMEOUT(
            state.statusText().startsWith(QStringLiteral("Reconnecting in 2s")), 10000);
        QVERIFY(!state.online());
        QVERIFY(changes > 0);
    }

    void foldersAreLoadedAndActivatedAtLaunch() {
        TempTree tree;
        const SharedFolder record = FolderStore::makeRecord(tree.dir(QStringLiteral("Docs")), {});
        FolderStore::save({record});
        AppState& state = freshState();
        QCOMPARE(state.folders(), QList<SharedFolder>{record});
    }

    void pairingSucceedsAndStoresTheToken() {
        RecordingHttpServer server;
        server.respond(200, okClaim);
        qputenv("QUILLMAR_API", server.base().toUtf8());
        AppState& state = freshState();
        QSignalSpy paired(&state, &AppState::pairedChanged);
        state.pair(QStringLiteral(" abcd1234\n"));
        QVERIFY(state.pairing());
        QCOMPARE(changes, 1);
        QTRY_VERIFY_WITH_TIMEOUT(state.paired(), 10000);
        QVERIFY(!state.pairing());
        QVERIFY(!state.pairError());
        QCOMPARE(paired.count(), 1);
        QCOMPARE(storedToken(), std::optional<QString>(QStringLiteral("tok-QmSecret-1")));
        // The claim first; then the bridge's own handshake may reach the same server.
        QVERIFY(!server.requests().isEmpty());
        QCOMPARE(server.requests()[0].method, QByteArray("POST"));
        QVERIFY(server.requests()[0].body.contains("\"code\":\"ABCD1234\""));
        // The bridge starts with the new token.
        QTRY_VERIFY_WITH_TIMEOUT(state.statusText() != QStringLiteral("Not connected"), 10000);
    }

    void pairingWhoseTokenCannotBeSavedStaysUnpaired() {
        RecordingHttpServer server;
        server.respond(200, okClaim);
        qputenv("QUILLMAR_API", server.base().toUtf8());
        AppState& state = freshState();
        // Below a plain file no folder can be made, whoever runs the test.
        const QString blocker = home->file(QStringLiteral("not-a-folder"), "x");
        qputenv("XDG_DATA_HOME", QFile::encodeName(blocker + QStringLiteral("/data")));
        QSignalSpy paired(&state, &AppState::pairedChanged);
        QCoro::waitFor(state.pairAndWait(QStringLiteral("ABCD1234")));
        QCOMPARE(server.requests().size(), 1);
        QVERIFY(!state.paired());
        QVERIFY(!state.pairing());
        QCOMPARE(paired.count(), 0);
        QCOMPARE(state.pairErrorText(),
                 QStringLiteral("The code worked, but the pairing couldn't be saved: the token "
                                "file %1/data/app.quillmar.companion/device_token could not be "
                                "written. Pair again with a new code once that is fixed; this one "
                                "is used up.")
                     .arg(blocker));
        // The bridge was never started with the token it could not keep.
        QTest::qWait(300);
        QCOMPARE(state.statusText(), QStringLiteral("Not connected"));
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(storedToken(), std::nullopt);
        QVERIFY(!state.tokenUnreadable());
        QCOMPARE(state.keyringProblem(), QString());
    }

    void failedPairingAfterSuccessKeepsPaired() {
        RecordingHttpServer server;
        server.respond(200, okClaim);
        qputenv("QUILLMAR_API", server.base().toUtf8());
        AppState& state = freshState();
        QCoro::waitFor(state.pairAndWait(QStringLiteral("GOODCODE")));
        QVERIFY(state.paired());
        server.respond(400, "{}");
        QCoro::waitFor(state.pairAndWait(QStringLiteral("BADCODE1")));
        QVERIFY(state.paired());
        QVERIFY(!state.pairing());
        QCOMPARE(state.pairError(),
                 std::optional<QString>(QStringLiteral(
                     "That code is invalid or expired. Generate a fresh one in the web app.")));
        server.respond(500, "{}");
        QCoro::waitFor(state.pairAndWait(QStringLiteral("X")));
        QCOMPARE(state.pairErrorText(), QStringLiteral("Server returned 500."));
        server.respond(200, R"({"device_token":"t","device_id":"d"})");
        QCoro::waitFor(state.pairAndWait(QStringLiteral("X")));
        QVERIFY(state.hasPairError());
        QVERIFY(!state.pairErrorText().isEmpty());
    }

    void unpairKeepsFoldersAndResetsStatus() {
        storeToken(QStringLiteral("tok-QmSecret-2"));
        qputenv("QUILLMAR_API", "http://127.0.0.1:1");
        TempTree tree;
        AppState& state = freshState();
        state.addFolderAt(tree.dir(QStringLiteral("Keep")));
        QTRY_VERIFY_WITH_TIMEOUT(state.statusText() != QStringLiteral("Not connected"), 10000);
        const int before = changes;
        QCoro::waitFor(state.unpairAndWait());
        QVERIFY(!state.paired());
        QVERIFY(!state.online());
        QCOMPARE(state.statusText(), QStringLiteral("Not connected"));
        QCOMPARE(state.folders().size(), 1);
        // The bridge reports "Disconnected" first, then unpairing announces its own change.
        QCOMPARE(changes, before + 2);
        QCOMPARE(storedToken(), std::nullopt);
        // No reconnection follows an unpair.
        QTest::qWait(300);
        QCOMPARE(state.statusText(), QStringLiteral("Not connected"));
    }

    void cancelledChooserChangesNothing() {
        AppState& state = freshState();
        chooser->answer.reset();
        state.addFolder();
        QCOMPARE(changes, 0);
        QVERIFY(!AppSettings::data(QStringLiteral("shared_folders")));
    }

    void addingAFolderSavesAndAnnounces() {
        TempTree tree;
        AppState& state = freshState();
        QSignalSpy folders(&state, &AppState::foldersChanged);
        chooser->answer = tree.dir(QStringLiteral("Reports"));
        state.addFolder();
        QCOMPARE(changes, 1);
        QCOMPARE(folders.count(), 1);
        QCOMPARE(state.folders().size(), 1);
        QCOMPARE(state.folders()[0].name, QStringLiteral("Reports"));
        QCOMPARE(FolderStore::load(), state.folders());
    }

    void aSecondRequestWhileTheChooserIsOpenAsksNothing() {
        TempTree tree;
        auto slow = std::make_shared<SlowChooser>();
        slow->answer = tree.dir(QStringLiteral("Reports"));
        running.reset();
        AppState state(AppServices{prompt, slow, keychain()});
        QCoro::Task<std::optional<SharedFolder>> first = state.addFolderAndWait();
        QCOMPARE(QCoro::waitFor(state.addFolderAndWait()), std::nullopt);
        QCOMPARE(slow->asked, 1);
        const std::optional<SharedFolder> added = QCoro::waitFor(std::move(first));
        QVERIFY(added);
        QCOMPARE(state.folders(), QList<SharedFolder>{*added});
        // Once answered, the chooser may be asked again.
        QVERIFY(QCoro::waitFor(state.addFolderAndWait()));
        QCOMPARE(slow->asked, 2);
        QCOMPARE(state.folders().size(), 2);
    }

    void removingAnUnknownFolderStillSavesAndAnnounces() {
        AppState& state = freshState();
        QVERIFY(!AppSettings::data(QStringLiteral("shared_folders")));
        state.removeFolder(SharedFolder{QUuid::createUuid(), QStringLiteral("x"),
                                        QStringLiteral("/x"), std::nullopt});
        QCOMPARE(changes, 1);
        QCOMPARE(AppSettings::data(QStringLiteral("shared_folders")),
                 std::optional<QByteArray>("[]"));
    }

    void removingComparesOnlyIds() {
        TempTree tree;
        AppState& state = freshState();
        const SharedFolder a = state.addFolderAt(tree.dir(QStringLiteral("Same")));
        const SharedFolder b = state.addFolderAt(tree.dir(QStringLiteral("Same")));
        QCOMPARE(b.name, QStringLiteral("Same 2"));
        SharedFolder renamed = a;
        renamed.name = QStringLiteral("other");
        state.removeFolder(renamed);
        QCOMPARE(state.folders(), QList<SharedFolder>{b});
        state.removeFolderById(b.id.toString(QUuid::WithoutBraces).toUpper());
        QVERIFY(state.folders().isEmpty());
    }

    void storingApprovalPersistsAndAnnounces() {
        AppState& state = freshState();
        state.storeRequireWriteApproval(false);
        QCOMPARE(changes, 1);
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(false));
        QVERIFY(!freshState().requireWriteApproval());
    }

    void approvalOffAllowsWithoutAsking() {
        AppState& state = freshState();
        state.setRequireWriteApproval(false);
        QVERIFY(QCoro::waitFor(state.requestWriteApproval(QStringLiteral("R/a.txt"), 5)));
        QVERIFY(prompt->asked.isEmpty());
    }

    void approvalOnAsksWithExactText() {
        AppState& state = freshState();
        prompt->answer = false;
        QVERIFY(!QCoro::waitFor(state.requestWriteApproval(QStringLiteral("R/a.txt"), 0)));
        QCOMPARE(prompt->asked,
                 QStringList{QStringLiteral("An agent wants to write 0 bytes to:\nR/a.txt")});
        prompt->answer = true;
        QVERIFY(QCoro::waitFor(state.requestWriteApproval(QStringLiteral("two\nlines"), 1536)));
        QCOMPARE(prompt->asked.last(),
                 QStringLiteral("An agent wants to write 1536 bytes to:\ntwo\nlines"));
        QCOMPARE(ApprovalPrompt::messageText(), QStringLiteral("Allow agent to write a file?"));
    }

    void noPromptMeansRefusal() {
        AppState& withoutPrompt = freshState(false);
        prompt->answer = true;
        QVERIFY(!QCoro::waitFor(withoutPrompt.requestWriteApproval(QStringLiteral("x"), 1)));
        QVERIFY(prompt->asked.isEmpty());
    }

    void theApplicationsStateIsTheOneAlive() {
        AppState& first = freshState();
        QCOMPARE(&AppState::shared(), &first);
        AppState& second = freshState();
        QCOMPARE(&AppState::shared(), &second);
    }
};

QTEST_GUILESS_MAIN(AppStateTest)
#include "tst_appstate.moc"
