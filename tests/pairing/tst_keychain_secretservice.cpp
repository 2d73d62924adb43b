// The token store against a real Secret Service (gnome-keyring on a private bus). Run through
// ctest, which starts it with run_sandboxed.sh; on its own it skips rather than touch the
// keyring of whoever runs it.
#include "Keychain.h"
#include "SecretStore.h"
#include "TokenFile.h"

#include <QCoroTask>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString secretsService = QStringLiteral("org.freedesktop.secrets");

QDBusMessage callSecrets(const QString& path, const QString& interface, const QString& method,
                         const QVariantList& arguments) {
    QDBusMessage call = QDBusMessage::createMethodCall(secretsService, path, interface, method);
    call.setArguments(arguments);
    return QDBusConnection::sessionBus().call(call, QDBus::Block, 5000);
}

// Every item in the default collection, whoever wrote it.
QList<QDBusObjectPath> storedItems() {
    const QDBusMessage reply =
        callSecrets(QStringLiteral("/org/freedesktop/secrets/aliases/default"),
                    QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"),
                    {QStringLiteral("org.freedesktop.Secret.Collection"), QStringLiteral("Items")});
    if (reply.type() != QDBusMessage::ReplyMessage) {
        return {};
    }
    const QVariant items = reply.arguments().constFirst().value<QDBusVariant>().variant();
    return qdbus_cast<QList<QDBusObjectPath>>(items);
}

// The raw bytes of one item's secret, read past QtKeychain.
std::optional<QByteArray> secretOf(const QDBusObjectPath& item) {
    const QDBusMessage session =
        callSecrets(QStringLiteral("/org/freedesktop/secrets"),
                    QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("OpenSession"),
                    {QStringLiteral("plain"), QVariant::fromValue(QDBusVariant(QString()))});
    if (session.type() != QDBusMessage::ReplyMessage || session.arguments().size() != 2) {
        return std::nullopt;
    }
    const auto sessionPath = session.arguments().at(1).value<QDBusObjectPath>();
    const QDBusMessage reply =
        callSecrets(item.path(), QStringLiteral("org.freedesktop.Secret.Item"),
                    QStringLiteral("GetSecret"), {QVariant::fromValue(sessionPath)});
    if (reply.type() != QDBusMessage::ReplyMessage) {
        return std::nullopt;
    }
    const auto argument = reply.arguments().constFirst().value<QDBusArgument>();
    QDBusObjectPath owner;
    QByteArray parameters;
    QByteArray value;
    QString contentType;
    argument.beginStructure();
    argument >> owner >> parameters >> value >> contentType;
    argument.endStructure();
    return value;
}

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

} // namespace

class KeychainSecretServiceTest : public QObject {
    Q_OBJECT

    TokenFile file;

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"keyring") {
            QSKIP("needs the private keyring that run_sandboxed.sh sets up; run it through ctest");
        }
        QVERIFY(qEnvironmentVariableIsEmpty("DISPLAY"));
        QVERIFY(SecretStore::isReachable());
        QCOMPARE(file.path(), qEnvironmentVariable("XDG_DATA_HOME") +
                                  QStringLiteral("/app.quillmar.companion/device_token"));
    }

    void init() {
        remove();
        file.remove();
    }

    void cleanup() { QVERIFY(!QFile::exists(file.path())); }

    void loadBeforeSaveGivesNothing() {
        QCOMPARE(load(), std::nullopt);
        QCOMPARE(storedItems().size(), 0);
    }

    void laterSaveReplacesEarlierAndOneItemRemains() {
        save(QStringLiteral("QmSecret-a"));
        QCOMPARE(load(), QStringLiteral("QmSecret-a"));
        save(QStringLiteral("QmSecret-b"));
        QCOMPARE(load(), QStringLiteral("QmSecret-b"));
        const QList<QDBusObjectPath> items = storedItems();
        QCOMPARE(items.size(), 1);
        QCOMPARE(secretOf(items.constFirst()), QByteArray("QmSecret-b"));
    }

    void emptyTokenRoundTripsAsEmpty() {
        save(QString());
        const std::optional<QString> loaded = load();
        QVERIFY(loaded.has_value());
        QCOMPARE(*loaded, QString());
        QCOMPARE(storedItems().size(), 1);
    }

    void deletingWhenNothingIsStoredIsSilent() {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        remove();
        remove();
        QCOMPARE(load(), std::nullopt);
    }

    void deleteRemovesTheItem() {
        save(QStringLiteral("QmSecret-gone"));
        QCOMPARE(storedItems().size(), 1);
        remove();
        QCOMPARE(storedItems().size(), 0);
        QCOMPARE(load(), std::nullopt);
    }

    void nonAsciiTokenRoundTripsAsUtf8() {
        const QString token = QStringLiteral("QmSecret-ünïcødé-日本語-🔑");
        save(token);
        QCOMPARE(load(), token);
        const QList<QDBusObjectPath> items = storedItems();
        QCOMPARE(items.size(), 1);
        QCOMPARE(secretOf(items.constFirst()), token.toUtf8());
    }

    void queuedOperationsTakeEffectInOrder() {
        // Started without waiting, as an unpair followed at once by a new pairing would.
        const Keychain keychain;
        auto first = keychain.saveToken(QStringLiteral("QmSecret-first"));
        auto erase = keychain.deleteToken();
        auto second = keychain.saveToken(QStringLiteral("QmSecret-second"));
        QCoro::waitFor(second);
        QCoro::waitFor(erase);
        QCoro::waitFor(first);
        QCOMPARE(load(), QStringLiteral("QmSecret-second"));
        QCOMPARE(storedItems().size(), 1);
    }

    void noTokenFileWhileTheStoreWorks() {
        QVERIFY(file.save("QmSecret-stale"));
        save(QStringLiteral("QmSecret-fresh"));
        QVERIFY(!QFile::exists(file.path()));
        QCOMPARE(load(), QStringLiteral("QmSecret-fresh"));
        QVERIFY(!QFile::exists(file.path()));
    }

    void tokenLeftInTheFileMovesIntoTheStore() {
        QVERIFY(file.save("QmSecret-from-file"));
        QCOMPARE(load(), QStringLiteral("QmSecret-from-file"));
        QVERIFY(!QFile::exists(file.path()));
        const QList<QDBusObjectPath> items = storedItems();
        QCOMPARE(items.size(), 1);
        QCOMPARE(secretOf(items.constFirst()), QByteArray("QmSecret-from-file"));
    }

    void storedTokenWinsOverAFile() {
        save(QStringLiteral("QmSecret-stored"));
        QVERIFY(file.save("QmSecret-other"));
        QCOMPARE(load(), QStringLiteral("QmSecret-stored"));
        remove();
        QVERIFY(!QFile::exists(file.path()));
    }

    void pinnedFileBackendLeavesTheStoreAlone() {
        const Keychain keychain(Keychain::Backend::TokenFile);
        save(QStringLiteral("QmSecret-filed"), keychain);
        QCOMPARE(load(keychain), QStringLiteral("QmSecret-filed"));
        QCOMPARE(file.load(), QByteArray("QmSecret-filed"));
        QCOMPARE(storedItems().size(), 0);
        remove(keychain);
        QVERIFY(!QFile::exists(file.path()));
    }

    void pinnedSecretStoreBackend() {
        const Keychain keychain(Keychain::Backend::SecretStore);
        save(QStringLiteral("QmSecret-pinned"), keychain);
        QCOMPARE(load(keychain), QStringLiteral("QmSecret-pinned"));
        QCOMPARE(storedItems().size(), 1);
        remove(keychain);
        QCOMPARE(storedItems().size(), 0);
    }

    void everyOperationIsQuick() {
        QElapsedTimer clock;
        clock.start();
        save(QStringLiteral("QmSecret-timed"));
        QCOMPARE(load(), QStringLiteral("QmSecret-timed"));
        remove();
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    }
};

QTEST_GUILESS_MAIN(KeychainSecretServiceTest)
#include "tst_keychain_secretservice.moc"
