#include "Keychain.h"

#include "SecretStore.h"
#include "TokenFile.h"

#include <QStringDecoder>

namespace {

Keychain::Backend pinnedBackend = Keychain::Backend::Automatic;
std::chrono::milliseconds storeTimeout = Keychain::defaultSecretStoreTimeout;

bool useSecretStore() {
    switch (pinnedBackend) {
    case Keychain::Backend::SecretStore:
        return true;
    case Keychain::Backend::TokenFile:
        return false;
    case Keychain::Backend::Automatic:
        break;
    }
    return SecretStore::isReachable();
}

// Bytes that are not UTF-8 are not a token of ours.
std::optional<QString> decodeToken(const QByteArray& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text;
}

} // namespace

QString Keychain::service() {
    return QStringLiteral("app.quillmar.companion");
}

QString Keychain::account() {
    return QStringLiteral("device_token");
}

void Keychain::setBackend(Backend backend) {
    pinnedBackend = backend;
}

Keychain::Backend Keychain::backend() {
    return pinnedBackend;
}

void Keychain::setSecretStoreTimeout(std::chrono::milliseconds timeout) {
    storeTimeout = timeout;
}

std::chrono::milliseconds Keychain::secretStoreTimeout() {
    return storeTimeout;
}

QCoro::Task<> Keychain::saveToken(QString token) {
    const TokenFile file;
    if (!useSecretStore()) {
        file.save(token.toUtf8());
        co_return;
    }
    // The file goes first, as the store's old entry does: after a failed save no token is
    // left anywhere, not even an older one.
    file.remove();
    co_await SecretStore::replace(service(), account(), token, storeTimeout);
}

QCoro::Task<std::optional<QString>> Keychain::loadToken() {
    const TokenFile file;
    if (!useSecretStore()) {
        const std::optional<QByteArray> bytes = file.load();
        co_return bytes ? decodeToken(*bytes) : std::nullopt;
    }
    const SecretStore::Read stored = co_await SecretStore::read(service(), account(), storeTimeout);
    if (stored.outcome == SecretStore::Outcome::Done) {
        co_return decodeToken(stored.secret);
    }
    if (stored.outcome != SecretStore::Outcome::NotFound) {
        co_return std::nullopt;
    }
    // Saved while no store was reachable: move it into the store, which is where it belongs now.
    const std::optional<QByteArray> bytes = file.load();
    const std::optional<QString> token = bytes ? decodeToken(*bytes) : std::nullopt;
    if (!token) {
        co_return std::nullopt;
    }
    const SecretStore::Outcome moved =
        co_await SecretStore::replace(service(), account(), *token, storeTimeout);
    if (moved == SecretStore::Outcome::Done) {
        file.remove();
    }
    co_return token;
}

QCoro::Task<> Keychain::deleteToken() {
    const TokenFile file;
    file.remove();
    if (useSecretStore()) {
        co_await SecretStore::remove(service(), account(), storeTimeout);
    }
}
