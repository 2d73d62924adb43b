// The state's pairing against a real gnome-keyring that gets locked: a pairing that cannot be
// saved is not one, and a token out of reach makes the pairing unknown rather than absent. Run
// through ctest, which starts it with run_sandboxed.sh; on its own it skips.
#include "AppState.h"
#include "Keychain.h"
#include "KeyringControl.h"
#include "RecordingHttpServer.h"

#include <QCoroTask>
#include <QSignalSpy>
#include <QTest>

namespace {

const QByteArray okClaim =
    R"({"device_token":"tok-QmSecret-claimed","device_id":"dev-1","org_id":"org-1"})";
const QString lockedProblem =
    QStringLiteral("Your keyring is locked, so the companion can't read its pairing. Unlock "
                   "the keyring, then choose Try Again.");

} // namespace

class AppStateKeyringTest : public QObject {
    Q_OBJECT

    KeyringControl keyring;
    // The private keyring is the desktop's store here.
    Keychain keychain{Keychain::Backend::Automatic};
    std::unique_ptr<AppState> running;

    void lock() { QVERIFY2(keyring.lock(), qPrintable(keyring.error())); }
    void unlock() { QVERIFY2(keyring.unlock(), qPrintable(keyring.error())); }
    void storeToken(const QString& token) {
        QCOMPARE(QCoro::waitFor(keychain.saveToken(token)), std::nullopt);
    }
    std::optional<QString> storedToken() const {
        const TokenLookup lookup = QCoro::waitFor(keychain.loadToken());
        return lookup.error ? QStringLiteral("<unreadable>") : lookup.token;
    }
    // A state as a new start makes it, the bridge left idle.
    AppState& freshState() {
        running.reset();
        running = std::make_unique<AppState>(AppServices{nullptr, nullptr, keychain},
                                             AppOptions{false, true});
        return *running;
    }

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"keyring") {
            QSKIP("needs the private keyring that run_sandboxed.sh sets up; run it through ctest");
        }
        QVERIFY(qEnvironmentVariableIsEmpty("DISPLAY"));
        QCOMPARE(storedToken(), std::nullopt);
    }

    void init() {
        unlock();
        QCOMPARE(QCoro::waitFor(keychain.deleteToken()), std::nullopt);
    }

    void cleanup() {
        running.reset();
        unlock();
    }

    void lockedAtStartLeavesThePairingUnknownUntilUnlocked() {
        storeToken(QStringLiteral("tok-QmSecret-kept"));
        lock();
        AppState& state = freshState();
        QVERIFY(!state.paired());
        QVERIFY(state.tokenUnreadable());
        QCOMPARE(state.tokenUnreadable()->kind(), KeychainError::Kind::Locked);
        QCOMPARE(state.keyringProblem(), lockedProblem);
        QVERIFY(!state.hasPairError());

        // Trying again while it is still locked changes nothing.
        QSignalSpy problem(&state, &AppState::keyringProblemChanged);
        QCoro::waitFor(state.reloadFromStore());
        QVERIFY(!state.paired());
        QCOMPARE(state.keyringProblem(), lockedProblem);
        QCOMPARE(problem.count(), 0);

        unlock();
        state.retryKeyring();
        QTRY_VERIFY_WITH_TIMEOUT(state.paired(), 10000);
        QCOMPARE(state.keyringProblem(), QString());
        QCOMPARE(state.tokenUnreadable(), std::nullopt);
        QCOMPARE(problem.count(), 1);
    }

    void lockedWithNothingStoredIsPlainlyUnpaired() {
        lock();
        AppState& state = freshState();
        QVERIFY(!state.paired());
        QCOMPARE(state.tokenUnreadable(), std::nullopt);
        QCOMPARE(state.keyringProblem(), QString());
    }

    void pairingIntoALockedKeyringDoesNotPair() {
        RecordingHttpServer server;
        server.respond(200, okClaim);
        qputenv("QUILLMAR_API", server.base().toUtf8());
        lock();
        AppState& state = freshState();
        QSignalSpy paired(&state, &AppState::pairedChanged);
        QCoro::waitFor(state.pairAndWait(QStringLiteral("ABCD1234")));
        QCOMPARE(server.requests().size(), 1);
        QVERIFY(!state.paired());
        QVERIFY(!state.pairing());
        QCOMPARE(paired.count(), 0);
        QCOMPARE(state.pairErrorText(),
                 QStringLiteral(
                     "The code worked, but the pairing couldn't be saved: your keyring is "
                     "locked. Unlock it and pair again with a new code; this one is used up."));
        unlock();
        QCOMPARE(keyring.entries(Keychain::account()), 0);
        QCOMPARE(storedToken(), std::nullopt);

        // Unlocked, a new code pairs.
        QCoro::waitFor(state.pairAndWait(QStringLiteral("EFGH5678")));
        QVERIFY(state.paired());
        QVERIFY(!state.hasPairError());
        QCOMPARE(storedToken(), std::optional<QString>(QStringLiteral("tok-QmSecret-claimed")));
    }

    void pairingAfterALockedStartClearsTheProblem() {
        RecordingHttpServer server;
        server.respond(200, okClaim);
        qputenv("QUILLMAR_API", server.base().toUtf8());
        storeToken(QStringLiteral("tok-QmSecret-old"));
        lock();
        AppState& state = freshState();
        QCOMPARE(state.keyringProblem(), lockedProblem);
        unlock();
        QCoro::waitFor(state.pairAndWait(QStringLiteral("ABCD1234")));
        QVERIFY(state.paired());
        QCOMPARE(state.keyringProblem(), QString());
    }

    void lockingDoesNotDropAPairingInUse() {
        storeToken(QStringLiteral("tok-QmSecret-in-use"));
        AppState& state = freshState();
        QVERIFY(state.paired());
        lock();
        QCoro::waitFor(state.reloadFromStore());
        QVERIFY(state.paired());
        QCOMPARE(state.keyringProblem(), QString());
    }

    void unpairingFromALockedKeyringSaysTheTokenStayed() {
        storeToken(QStringLiteral("tok-QmSecret-stays"));
        AppState& state = freshState();
        QVERIFY(state.paired());
        lock();
        const std::optional<KeychainError> failure = QCoro::waitFor(state.unpairAndWait());
        QVERIFY(failure);
        QCOMPARE(failure->kind(), KeychainError::Kind::Locked);
        QVERIFY(!state.paired());
        QCOMPARE(state.keyringProblem(), lockedProblem);
        unlock();
        QCOMPARE(storedToken(), std::optional<QString>(QStringLiteral("tok-QmSecret-stays")));
        // Once unlocked, unpairing goes through.
        QCOMPARE(QCoro::waitFor(state.unpairAndWait()), std::nullopt);
        QCOMPARE(state.keyringProblem(), QString());
        QCOMPARE(storedToken(), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(AppStateKeyringTest)
#include "tst_appstate_keyring.moc"
