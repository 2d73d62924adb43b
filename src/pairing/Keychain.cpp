#include "Keychain.h"

#include "SecretStore.h"
#include "TokenFile.h"

#include <QLoggingCategory>
#include <QStringDecoder>

Q_LOGGING_CATEGORY(lcSecrets, "quillmar.secrets", QtWarningMsg)

namespace {

// Bytes that are not UTF-8 are not a token of ours.
std::optional<QString> decodeToken(const QByteArray& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text;
}

std::optional<KeychainError> errorOf(const SecretStore::Reply& reply) {
    switch (reply.outcome) {
    case SecretStore::Outcome::Done:
    case SecretStore::Outcome::NotFound:
        return std::nullopt;
    case SecretStore::Outcome::Locked:
        return KeychainError(KeychainError::Kind::Locked, reply.message);
    case SecretStore::Outcome::Unreachable:
        return KeychainError(KeychainError::Kind::Unreachable, reply.message);
    case SecretStore::Outcome::Failed:
        break;
    }
    return KeychainError(KeychainError::Kind::Other, reply.message);
}

KeychainError fileError(const QString& text, const TokenFile& file) {
    return KeychainError(KeychainError::Kind::Other, text.arg(file.path()));
}

} // namespace

QString Keychain::service() {
    return QStringLiteral("app.quillmar.companion");
}

QString Keychain::account() {
    return QStringLiteral("device_token");
}

Keychain::Keychain(Backend backend, std::chrono::milliseconds secretStoreTimeout)
    : m_backend(backend), m_secretStoreTimeout(secretStoreTimeout) {}

bool Keychain::useSecretStore() const {
    switch (m_backend) {
    case Backend::SecretStore:
        return true;
    case Backend::TokenFile:
        return false;
    case Backend::Automatic:
        break;
    }
    return SecretStore::isReachable();
}

QCoro::Task<std::optional<KeychainError>> Keychain::saveToken(QString token) const {
    // Copied: the keychain may be gone by the time the store answers.
    const std::chrono::milliseconds timeout = m_secretStoreTimeout;
    const TokenFile file;
    if (!useSecretStore()) {
        if (!file.save(token.toUtf8())) {
            co_return fileError(QStringLiteral("the token file %1 could not be written"), file);
        }
        co_return std::nullopt;
    }
    // The file goes first, as the store's old entry does: after a failed save no token is
    // left anywhere, not even an older one.
    if (!file.remove()) {
        qCWarning(lcSecrets) << "could not remove the token file" << file.path();
    }
    const SecretStore::Reply reply =
        co_await SecretStore::replace(service(), account(), token, timeout);
    co_return errorOf(reply);
}

QCoro::Task<TokenLookup> Keychain::loadToken() const {
    // Copied: the keychain may be gone by the time the store answers.
    const std::chrono::milliseconds timeout = m_secretStoreTimeout;
    const TokenFile file;
    if (!useSecretStore()) {
        const std::optional<QByteArray> bytes = file.load();
        co_return TokenLookup{bytes ? decodeToken(*bytes) : std::nullopt, std::nullopt};
    }
    const SecretStore::Reply stored = co_await SecretStore::read(service(), account(), timeout);
    if (stored.outcome == SecretStore::Outcome::Done) {
        co_return TokenLookup{decodeToken(stored.secret), std::nullopt};
    }
    if (stored.outcome != SecretStore::Outcome::NotFound) {
        co_return TokenLookup{std::nullopt, errorOf(stored)};
    }
    // Saved while no store was reachable: move it into the store, which is where it belongs now.
    const std::optional<QByteArray> bytes = file.load();
    const std::optional<QString> token = bytes ? decodeToken(*bytes) : std::nullopt;
    if (!token) {
        co_return TokenLookup{};
    }
    const SecretStore::Reply moved =
        co_await SecretStore::replace(service(), account(), *token, timeout);
    if (moved.outcome != SecretStore::Outcome::Done) {
        qCDebug(lcSecrets) << "the token stays in its file: the secret store did not take it";
    } else if (!file.remove()) {
        qCWarning(lcSecrets) << "could not remove the token file" << file.path();
    }
    co_return TokenLookup{token, std::nullopt};
}

QCoro::Task<std::optional<KeychainError>> Keychain::deleteToken() const {
    // Copied: the keychain may be gone by the time the store answers.
    const std::chrono::milliseconds timeout = m_secretStoreTimeout;
    const TokenFile file;
    const bool fileGone = file.remove();
    std::optional<KeychainError> failure;
    if (useSecretStore()) {
        failure = errorOf(co_await SecretStore::remove(service(), account(), timeout));
    }
    if (!failure && !fileGone) {
        failure = fileError(QStringLiteral("the token file %1 could not be removed"), file);
    }
    co_return failure;
}
