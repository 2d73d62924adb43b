#include "SecretStore.h"

#include <QCoroDBusPendingCall>
#include <QCoroSignal>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QMap>
#include <QStringList>
#include <qt6keychain/keychain.h>

#include <algorithm>

namespace {

const QString secretServiceName = QStringLiteral("org.freedesktop.secrets");

// The names QtKeychain talks to on Linux: the Secret Service (via libsecret), else KWallet.
const QStringList& providerNames() {
    static const QStringList names{
        secretServiceName,
        QStringLiteral("org.kde.kwalletd6"),
        QStringLiteral("org.kde.kwalletd5"),
        QStringLiteral("org.kde.kwalletd"),
    };
    return names;
}

constexpr int busQueryTimeoutMs = 1000;
// Searching never prompts, so the service answers at once or not at all.
constexpr std::chrono::milliseconds searchTimeout{5000};

QStringList askBus(QDBusConnection& bus, const QString& method) {
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), method);
    const QDBusMessage reply = bus.call(call, QDBus::Block, busQueryTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return {};
    }
    return reply.arguments().constFirst().toStringList();
}

template <typename Job> Job* makeJob(const QString& service, const QString& account) {
    auto* job = new Job(service);
    job->setAutoDelete(false);
    job->setKey(account);
    return job;
}

// Waits for `job` to finish and gives its error, or nothing on a time-out. A job that outlives
// the wait must stay alive until it does finish (libsecret still points at it), so it is then
// left to delete itself; otherwise the caller deletes it after reading what it needs.
QCoro::Task<std::optional<QKeychain::Error>> finished(QKeychain::Job* job,
                                                      std::chrono::milliseconds timeout) {
    const auto done = co_await qCoro(job, &QKeychain::Job::finished, timeout);
    if (!done) {
        QObject::connect(job, &QKeychain::Job::finished, job, &QObject::deleteLater);
        co_return std::nullopt;
    }
    co_return job->error();
}

QString timedOutText(std::chrono::milliseconds timeout) {
    return QStringLiteral("the keyring did not answer within %1 seconds")
        .arg(QString::number(double(timeout.count()) / 1000.0, 'g', 3));
}

// What a finished (or timed-out) job came to. libsecret reports a locked collection whose
// unlock was refused as AccessDenied when writing; a read in that case finds nothing, which
// read() tells apart itself.
SecretStore::Reply replyOf(const std::optional<QKeychain::Error>& error, const QString& words,
                           std::chrono::milliseconds timeout) {
    using Outcome = SecretStore::Outcome;
    if (!error) {
        return {Outcome::Failed, timedOutText(timeout), {}};
    }
    switch (*error) {
    case QKeychain::NoError:
        return {Outcome::Done, {}, {}};
    case QKeychain::EntryNotFound:
        return {Outcome::NotFound, {}, {}};
    case QKeychain::AccessDenied:
    case QKeychain::AccessDeniedByUser:
        return {Outcome::Locked, words, {}};
    case QKeychain::NoBackendAvailable:
        return {Outcome::Unreachable, words, {}};
    default:
        break;
    }
    // libsecret's own connection errors arrive as OtherError; the bus tells whether that meant
    // nobody was there to answer.
    if (!SecretStore::isReachable()) {
        return {Outcome::Unreachable, words, {}};
    }
    return {Outcome::Failed,
            words.isEmpty() ? QStringLiteral("the keyring failed")
                            : QStringLiteral("the keyring reported \u201c%1\u201d").arg(words),
            {}};
}

// Whether the Secret Service holds the entry in a locked collection. libsecret answers a lookup
// whose unlock was refused with "not found", and a delete with success while the entry stays:
// a search, which never prompts, shows what is really there. Asks a running service only.
QCoro::Task<bool> lockedEntryExists(const QString& service, const QString& account) {
    static const QMetaType attributesType = qDBusRegisterMetaType<QMap<QString, QString>>();
    Q_UNUSED(attributesType)
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        co_return false;
    }
    QDBusMessage search = QDBusMessage::createMethodCall(
        secretServiceName, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("SearchItems"));
    search.setAutoStartService(false);
    // The attributes QtKeychain gives every entry it writes.
    const QMap<QString, QString> attributes{{QStringLiteral("server"), service},
                                            {QStringLiteral("user"), account}};
    search << QVariant::fromValue(attributes);
    const QDBusPendingCall pending = bus.asyncCall(search, int(searchTimeout.count()));
    const QDBusMessage reply = co_await pending;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
        co_return false;
    }
    const auto locked = qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(1));
    co_return !locked.isEmpty();
}

QString stillLockedText() {
    return QStringLiteral("the token is kept in a locked keyring");
}

} // namespace

bool SecretStore::isReachable() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return false;
    }
    const QStringList running = askBus(bus, QStringLiteral("ListNames"));
    const QStringList startable = askBus(bus, QStringLiteral("ListActivatableNames"));
    return std::any_of(providerNames().begin(), providerNames().end(), [&](const QString& name) {
        return running.contains(name) || startable.contains(name);
    });
}

QCoro::Task<SecretStore::Reply> SecretStore::read(QString service, QString account,
                                                  std::chrono::milliseconds timeout) {
    auto* job = makeJob<QKeychain::ReadPasswordJob>(service, account);
    job->start();
    const std::optional<QKeychain::Error> error = co_await finished(job, timeout);
    Reply result = replyOf(error, error ? job->errorString() : QString(), timeout);
    if (!error) {
        co_return result;
    }
    if (result.outcome == Outcome::Done) {
        result.secret = job->binaryData();
    }
    job->deleteLater();
    if (result.outcome == Outcome::NotFound) {
        const bool locked = co_await lockedEntryExists(service, account);
        if (locked) {
            result = Reply{Outcome::Locked, stillLockedText(), {}};
        }
    }
    co_return result;
}

QCoro::Task<SecretStore::Reply> SecretStore::replace(QString service, QString account,
                                                     QString secret,
                                                     std::chrono::milliseconds timeout) {
    // Delete, then add: both queued now, so nothing started later can come in between. The
    // delete's own result does not matter (nothing stored is the usual case).
    auto* erase = makeJob<QKeychain::DeletePasswordJob>(service, account);
    erase->setAutoDelete(true);
    erase->start();
    auto* write = makeJob<QKeychain::WritePasswordJob>(service, account);
    // Text mode stores the UTF-8 bytes themselves; binary mode would store them base64-encoded.
    write->setTextData(secret);
    write->start();
    const std::optional<QKeychain::Error> error = co_await finished(write, timeout);
    const Reply result = replyOf(error, error ? write->errorString() : QString(), timeout);
    if (error) {
        write->deleteLater();
    }
    co_return result;
}

QCoro::Task<SecretStore::Reply> SecretStore::remove(QString service, QString account,
                                                    std::chrono::milliseconds timeout) {
    auto* job = makeJob<QKeychain::DeletePasswordJob>(service, account);
    job->start();
    const std::optional<QKeychain::Error> error = co_await finished(job, timeout);
    Reply result = replyOf(error, error ? job->errorString() : QString(), timeout);
    if (error) {
        job->deleteLater();
    }
    if (result.outcome == Outcome::Done || result.outcome == Outcome::NotFound) {
        const bool locked = co_await lockedEntryExists(service, account);
        result =
            locked ? Reply{Outcome::Locked, stillLockedText(), {}} : Reply{Outcome::Done, {}, {}};
    }
    co_return result;
}
