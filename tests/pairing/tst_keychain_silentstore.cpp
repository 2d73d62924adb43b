// The token store against a secret service that never answers: every operation gives up after
// the time-out, says so, and does not fall back to the file. Run through ctest, which
// starts it on a private bus with run_sandboxed.sh; on its own it skips.
#include "Keychain.h"
#include "SecretStore.h"
#include "SilentSecretService.h"
#include "TokenFile.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>

using namespace std::chrono_literals;

namespace {

std::optional<KeychainError> silence() {
    return KeychainError(KeychainError::Kind::Other,
                         QStringLiteral("the keyring did not answer within 0.5 seconds"));
}

} // namespace

class KeychainSilentStoreTest : public QObject {
    Q_OBJECT

    SilentSecretService service;
    TokenFile file;
    const Keychain keychain{Keychain::Backend::Automatic, 500ms};

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"silent-bus") {
            QSKIP("needs the private bus that run_sandboxed.sh sets up; run it through ctest");
        }
        QVERIFY(service.install());
        QVERIFY(SecretStore::isReachable());
    }

    void loadGivesUpWithNothing() {
        QVERIFY(file.save("QmSecret-in-file"));
        QElapsedTimer clock;
        clock.start();
        const TokenLookup loaded = QCoro::waitFor(keychain.loadToken());
        QVERIFY2(clock.elapsed() >= 400 && clock.elapsed() < 5000,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(loaded.token, std::nullopt);
        QCOMPARE(loaded.error, silence());
        QVERIFY(service.callsSwallowed() > 0);
        file.remove();
    }

    void saveGivesUpAndWritesNoFile() {
        QElapsedTimer clock;
        clock.start();
        const std::optional<KeychainError> saved =
            QCoro::waitFor(keychain.saveToken(QStringLiteral("QmSecret-unsaved")));
        QVERIFY2(clock.elapsed() >= 400 && clock.elapsed() < 5000,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(saved, silence());
        QVERIFY(!QFile::exists(file.path()));
    }

    void deleteGivesUpAndSaysSo() {
        QElapsedTimer clock;
        clock.start();
        const std::optional<KeychainError> removed = QCoro::waitFor(keychain.deleteToken());
        QVERIFY2(clock.elapsed() >= 400 && clock.elapsed() < 5000,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(removed, silence());
    }
};

QTEST_GUILESS_MAIN(KeychainSilentStoreTest)
#include "tst_keychain_silentstore.moc"
