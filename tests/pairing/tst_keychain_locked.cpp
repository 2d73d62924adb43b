// The token store against a real gnome-keyring that is locked, as after a login without the
// keyring password or once the user locks it. With no display the daemon cannot show its unlock
// prompt and answers as if the user had cancelled it, so each case also covers a refused
// unlock. Run through ctest, which starts it with run_sandboxed.sh; on its own it skips.
#include "Keychain.h"
#include "KeyringControl.h"
#include "SecretStore.h"
#include "TokenFile.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>

namespace {

// Far below the store's own time-out: a failed unlock prompt must come back, not hang.
constexpr qint64 promptlyMs = 10000;

} // namespace

class KeychainLockedTest : public QObject {
    Q_OBJECT

    KeyringControl keyring;
    TokenFile file;
    const Keychain keychain;
    QElapsedTimer clock;

    void lock() { QVERIFY2(keyring.lock(), qPrintable(keyring.error())); }
    void unlock() { QVERIFY2(keyring.unlock(), qPrintable(keyring.error())); }

    void save(const QString& token) {
        const std::optional<KeychainError> error = QCoro::waitFor(keychain.saveToken(token));
        QVERIFY2(!error, qPrintable(error ? error->reason() : QString()));
    }

    void checkPrompt() {
        QVERIFY2(clock.elapsed() < promptlyMs, qPrintable(QString::number(clock.elapsed())));
    }

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"keyring") {
            QSKIP("needs the private keyring that run_sandboxed.sh sets up; run it through ctest");
        }
        QVERIFY(qEnvironmentVariableIsEmpty("DISPLAY"));
        QVERIFY(qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"));
        QVERIFY(SecretStore::isReachable());
        // The service starts on the first call; the store's own lookup brings it up.
        QCOMPARE(QCoro::waitFor(keychain.loadToken()).token, std::nullopt);
        QCOMPARE(keyring.isLocked(), std::optional<bool>(false));
    }

    void init() {
        unlock();
        QCOMPARE(QCoro::waitFor(keychain.deleteToken()), std::nullopt);
        file.remove();
        clock.start();
    }

    void cleanup() {
        unlock();
        QVERIFY(!QFile::exists(file.path()));
    }

    void saveIntoALockedKeyringFailsAsLocked() {
        lock();
        clock.restart();
        const std::optional<KeychainError> error =
            QCoro::waitFor(keychain.saveToken(QStringLiteral("QmSecret-unsaved")));
        checkPrompt();
        QVERIFY(error);
        QCOMPARE(error->kind(), KeychainError::Kind::Locked);
        QCOMPARE(error->reason(), QStringLiteral("the keyring is locked"));
        // Not in the file instead, and not in the keyring once it is open again.
        QVERIFY(!QFile::exists(file.path()));
        unlock();
        QCOMPARE(keyring.entries(Keychain::account()), 0);
        const TokenLookup lookup = QCoro::waitFor(keychain.loadToken());
        QCOMPARE(lookup.token, std::nullopt);
        QCOMPARE(lookup.error, std::nullopt);
    }

    void storedTokenInALockedKeyringIsUnreadableNotMissing() {
        save(QStringLiteral("QmSecret-kept"));
        lock();
        clock.restart();
        const TokenLookup locked = QCoro::waitFor(keychain.loadToken());
        checkPrompt();
        QCOMPARE(locked.token, std::nullopt);
        QVERIFY(locked.error);
        QCOMPARE(locked.error->kind(), KeychainError::Kind::Locked);
        QVERIFY(!QFile::exists(file.path()));

        unlock();
        const TokenLookup open = QCoro::waitFor(keychain.loadToken());
        QCOMPARE(open.token, std::optional<QString>(QStringLiteral("QmSecret-kept")));
        QCOMPARE(open.error, std::nullopt);
    }

    void lockedKeyringWithNothingStoredHoldsNoToken() {
        lock();
        clock.restart();
        const TokenLookup lookup = QCoro::waitFor(keychain.loadToken());
        checkPrompt();
        QCOMPARE(lookup.token, std::nullopt);
        QCOMPARE(lookup.error, std::nullopt);
    }

    void deleteFromALockedKeyringKeepsTheTokenAndSaysSo() {
        save(QStringLiteral("QmSecret-stays"));
        lock();
        clock.restart();
        const std::optional<KeychainError> error = QCoro::waitFor(keychain.deleteToken());
        checkPrompt();
        QVERIFY(error);
        QCOMPARE(error->kind(), KeychainError::Kind::Locked);
        unlock();
        QCOMPARE(QCoro::waitFor(keychain.loadToken()).token,
                 std::optional<QString>(QStringLiteral("QmSecret-stays")));
    }

    void replacingInALockedKeyringKeepsTheOldToken() {
        save(QStringLiteral("QmSecret-old"));
        lock();
        const std::optional<KeychainError> error =
            QCoro::waitFor(keychain.saveToken(QStringLiteral("QmSecret-new")));
        QVERIFY(error);
        QCOMPARE(error->kind(), KeychainError::Kind::Locked);
        unlock();
        QCOMPARE(keyring.entries(Keychain::account()), 1);
        QCOMPARE(QCoro::waitFor(keychain.loadToken()).token,
                 std::optional<QString>(QStringLiteral("QmSecret-old")));
    }

    void fileTokenStaysInItsFileWhileTheKeyringIsLocked() {
        // Saved in a session without a store; the move into the keyring waits for it to open.
        QVERIFY(file.save("QmSecret-from-file"));
        lock();
        const TokenLookup locked = QCoro::waitFor(keychain.loadToken());
        QCOMPARE(locked.token, std::optional<QString>(QStringLiteral("QmSecret-from-file")));
        QCOMPARE(locked.error, std::nullopt);
        QVERIFY(QFile::exists(file.path()));
        unlock();
        QCOMPARE(QCoro::waitFor(keychain.loadToken()).token,
                 std::optional<QString>(QStringLiteral("QmSecret-from-file")));
        QVERIFY(!QFile::exists(file.path()));
        QCOMPARE(keyring.entries(Keychain::account()), 1);
    }

    void unlockingAgainLetsSavesThrough() {
        lock();
        QVERIFY(QCoro::waitFor(keychain.saveToken(QStringLiteral("QmSecret-first"))));
        unlock();
        save(QStringLiteral("QmSecret-second"));
        QCOMPARE(QCoro::waitFor(keychain.loadToken()).token,
                 std::optional<QString>(QStringLiteral("QmSecret-second")));
    }
};

QTEST_GUILESS_MAIN(KeychainLockedTest)
#include "tst_keychain_locked.moc"
