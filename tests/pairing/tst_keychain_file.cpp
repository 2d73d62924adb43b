// The token store where no secret store can be reached: no session bus, or a dead one. Run
// through ctest, which starts it with run_sandboxed.sh; on its own it skips rather than touch
// the files and keyring of whoever runs it.
#include "Keychain.h"
#include "SecretStore.h"
#include "TempTree.h"
#include "TokenFile.h"

#include <QCoroTask>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>

namespace {

// Loosely: the point is "no hang", not a benchmark.
constexpr qint64 quickMs = 5000;

// The token; a store that could not be read gives a text no test expects.
std::optional<QString> load(const Keychain& keychain = Keychain()) {
    const TokenLookup lookup = QCoro::waitFor(keychain.loadToken());
    if (lookup.error) {
        return QStringLiteral("<unreadable: %1>").arg(lookup.error->reason());
    }
    return lookup.token;
}

void save(const QString& token, const Keychain& keychain = Keychain()) {
    const std::optional<KeychainError> error = QCoro::waitFor(keychain.saveToken(token));
    QVERIFY2(!error, qPrintable(error ? error->reason() : QString()));
}

void remove(const Keychain& keychain = Keychain()) {
    const std::optional<KeychainError> error = QCoro::waitFor(keychain.deleteToken());
    QVERIFY2(!error, qPrintable(error ? error->reason() : QString()));
}

mode_t modeOf(const QString& path) {
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0) {
        return 0;
    }
    return info.st_mode & 07777;
}

void setMode(const QString& path, mode_t mode) {
    QCOMPARE(::chmod(QFile::encodeName(path).constData(), mode), 0);
}

} // namespace

class KeychainFileTest : public QObject {
    Q_OBJECT

    TokenFile file;
    QString folder;

private slots:
    void initTestCase() {
        const QString mode = qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX");
        if (mode != u"no-bus" && mode != u"dead-bus") {
            QSKIP("needs the bus-less session that run_sandboxed.sh sets up; run it through ctest");
        }
        folder = qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/app.quillmar.companion");
        QCOMPARE(file.path(), folder + QStringLiteral("/device_token"));
    }

    void init() { file.remove(); }

    void noSecretStoreIsFoundAndThatIsQuick() {
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!SecretStore::isReachable());
        QVERIFY2(clock.elapsed() < quickMs, qPrintable(QString::number(clock.elapsed())));
    }

    void loadBeforeSaveGivesNothing() { QCOMPARE(load(), std::nullopt); }

    void saveLoadDeleteUseThePrivateFile() {
        QElapsedTimer clock;
        clock.start();
        save(QStringLiteral("QmSecret-1"));
        QVERIFY2(clock.elapsed() < quickMs, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(file.load(), QByteArray("QmSecret-1"));
        QCOMPARE(modeOf(file.path()), mode_t(0600));
        QCOMPARE(modeOf(folder), mode_t(0700));

        clock.restart();
        QCOMPARE(load(), QStringLiteral("QmSecret-1"));
        QVERIFY2(clock.elapsed() < quickMs, qPrintable(QString::number(clock.elapsed())));

        clock.restart();
        remove();
        QVERIFY2(clock.elapsed() < quickMs, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!QFile::exists(file.path()));
        QCOMPARE(load(), std::nullopt);
    }

    void laterSaveReplacesEarlierAndLeavesOneFile() {
        save(QStringLiteral("QmSecret-a"));
        save(QStringLiteral("QmSecret-b"));
        QCOMPARE(load(), QStringLiteral("QmSecret-b"));
        QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{QStringLiteral("device_token")});
    }

    void emptyTokenRoundTripsAsEmpty() {
        save(QString());
        const std::optional<QString> loaded = load();
        QVERIFY(loaded.has_value());
        QCOMPARE(*loaded, QString());
    }

    void nonAsciiTokenRoundTripsAsUtf8() {
        const QString token = QStringLiteral("QmSecret-ünïcødé-日本語-🔑");
        save(token);
        QCOMPARE(load(), token);
        QCOMPARE(file.load(), token.toUtf8());
    }

    void deletingWhenNothingIsStoredIsSilent() {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        remove();
        remove();
        QCOMPARE(load(), std::nullopt);
    }

    void privateEvenWithAnOpenUmask() {
        QDir(folder).removeRecursively();
        const mode_t previous = ::umask(0);
        save(QStringLiteral("QmSecret-umask"));
        ::umask(previous);
        QCOMPARE(modeOf(folder), mode_t(0700));
        QCOMPARE(modeOf(file.path()), mode_t(0600));
    }

    void widerFolderIsTightened() {
        QDir(folder).removeRecursively();
        QVERIFY(QDir().mkpath(folder));
        setMode(folder, 0755);
        save(QStringLiteral("QmSecret-folder"));
        QCOMPARE(modeOf(folder), mode_t(0700));
        QCOMPARE(load(), QStringLiteral("QmSecret-folder"));
    }

    void fileOthersCanReachIsRefused_data() {
        QTest::addColumn<int>("mode");
        QTest::newRow("0644") << 0644;
        QTest::newRow("0640") << 0640;
        QTest::newRow("0604") << 0604;
        QTest::newRow("0620") << 0620;
        QTest::newRow("0602") << 0602;
        QTest::newRow("0666") << 0666;
    }
    void fileOthersCanReachIsRefused() {
        QFETCH(int, mode);
        save(QStringLiteral("QmSecret-exposed"));
        setMode(file.path(), mode_t(mode));
        QCOMPARE(load(), std::nullopt);
        // Saving again puts a private file in its place.
        save(QStringLiteral("QmSecret-private"));
        QCOMPARE(modeOf(file.path()), mode_t(0600));
        QCOMPARE(load(), QStringLiteral("QmSecret-private"));
    }

    void ownerOnlyReadableFileIsAccepted() {
        save(QStringLiteral("QmSecret-readonly"));
        setMode(file.path(), 0400);
        QCOMPARE(load(), QStringLiteral("QmSecret-readonly"));
    }

    void symlinkIsRefused() {
        TempTree elsewhere;
        const QString target = elsewhere.file(QStringLiteral("token"), "QmSecret-linked");
        setMode(target, 0600);
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QFile::link(target, file.path()));
        QCOMPARE(load(), std::nullopt);
        remove();
        QVERIFY(!QFileInfo(file.path()).isSymLink());
        QVERIFY(QFile::exists(target));
    }

    void bytesThatAreNotUtf8AreNoToken() {
        QVERIFY(file.save(QByteArray("QmSecret-\xff\xfe")));
        QCOMPARE(load(), std::nullopt);
    }

    void pinnedSecretStoreFailsAsUnreachableAndQuickly() {
        const Keychain keychain(Keychain::Backend::SecretStore);
        QElapsedTimer clock;
        clock.start();
        const std::optional<KeychainError> saved =
            QCoro::waitFor(keychain.saveToken(QStringLiteral("QmSecret-nowhere")));
        QVERIFY(saved);
        QCOMPARE(saved->kind(), KeychainError::Kind::Unreachable);
        QCOMPARE(saved->reason(), QStringLiteral("no keyring could be reached"));
        const TokenLookup loaded = QCoro::waitFor(keychain.loadToken());
        QCOMPARE(loaded.token, std::nullopt);
        QVERIFY(loaded.error);
        QCOMPARE(loaded.error->kind(), KeychainError::Kind::Unreachable);
        const std::optional<KeychainError> removed = QCoro::waitFor(keychain.deleteToken());
        QVERIFY(removed);
        QCOMPARE(removed->kind(), KeychainError::Kind::Unreachable);
        QVERIFY2(clock.elapsed() < quickMs, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!QFile::exists(file.path()));
    }

    void unwritableFileIsReportedWithItsPath() {
        // Below a plain file no folder can be made, whoever runs the test.
        TempTree elsewhere;
        const QString blocker = elsewhere.file(QStringLiteral("not-a-folder"), "x");
        const QByteArray dataHome = qgetenv("XDG_DATA_HOME");
        qputenv("XDG_DATA_HOME", QFile::encodeName(blocker + QStringLiteral("/data")));
        const std::optional<KeychainError> saved =
            QCoro::waitFor(Keychain().saveToken(QStringLiteral("QmSecret-unwritable")));
        const TokenLookup loaded = QCoro::waitFor(Keychain().loadToken());
        qputenv("XDG_DATA_HOME", dataHome);
        QVERIFY(saved);
        QCOMPARE(saved->kind(), KeychainError::Kind::Other);
        QCOMPARE(saved->reason(),
                 QStringLiteral("the token file %1/data/app.quillmar.companion/device_token could "
                                "not be written")
                     .arg(blocker));
        QCOMPARE(loaded.token, std::nullopt);
        QCOMPARE(loaded.error, std::nullopt);
    }
};

QTEST_GUILESS_MAIN(KeychainFileTest)
#include "tst_keychain_file.moc"
