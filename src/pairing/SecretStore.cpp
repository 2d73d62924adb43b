#include "SecretStore.h"

#include <QCoroSignal>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <qt6keychain/keychain.h>

namespace {

// The names QtKeychain talks to on Linux: the Secret Service (via libsecret), else KWallet.
const QStringList& providerNames() {
    static const QStringList names{
        QStringLiteral("org.freedesktop.secrets"),
        QStringLiteral("org.kde.kwalletd6"),
        QStringLiteral("org.kde.kwalletd5"),
        QStringLiteral("org.kde.kwalletd"),
    };
    return names;
}

constexpr int busQueryTimeoutMs = 1000;

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

SecretStore::Outcome outcomeOf(const std::optional<QKeychain::Error>& error) {
    if (!error) {
        return SecretStore::Outcome::Failed;
    }
    switch (*error) {
    case QKeychain::NoError:
        return SecretStore::Outcome::Done;
    case QKeychain::EntryNotFound:
        return SecretStore::Outcome::NotFound;
    default:
        return SecretStore::Outcome::Failed;
    }
}

} // namespace

bool SecretStore::isReachable() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return false;
    }
    const QStringList running = askBus(bus, QStringLiteral("ListNames"));
    const QStringList startable = askBus(bus, QStringLiteral("ListActivatableNames"));
    for (const QString& name : providerNames()) {
        if (running.contains(name) || startable.contains(name)) {
            return true;
        }
    }
    return false;
}

QCoro::Task<SecretStore::Read> SecretStore::read(QString service, QString account,
                                                 std::chrono::milliseconds timeout) {
    auto* job = makeJob<QKeychain::ReadPasswordJob>(service, account);
    job->start();
    const std::optional<QKeychain::Error> error = co_await finished(job, timeout);
    if (!error) {
        co_return Read{Outcome::Failed, {}};
    }
    Read result{outcomeOf(error), {}};
    if (result.outcome == Outcome::Done) {
        result.secret = job->binaryData();
    }
    job->deleteLater();
    co_return result;
}

QCoro::Task<SecretStore::Outcome> SecretStore::replace(QString service, QString account,
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
    if (error) {
        write->deleteLater();
    }
    co_return outcomeOf(error);
}

QCoro::Task<SecretStore::Outcome> SecretStore::remove(QString service, QString account,
                                                      std::chrono::milliseconds timeout) {
    auto* job = makeJob<QKeychain::DeletePasswordJob>(service, account);
    job->start();
    const std::optional<QKeychain::Error> error = co_await finished(job, timeout);
    if (error) {
        job->deleteLater();
    }
    co_return outcomeOf(error);
}
