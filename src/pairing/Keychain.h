#pragma once

#include "KeychainError.h"
#include "TokenLookup.h"

#include <QCoroTask>
#include <QString>

#include <chrono>
#include <optional>

// Keeps the one secret of the companion, the device token, under service
// "app.quillmar.companion" and account "device_token".
//
// Where it goes: the desktop's secret store whenever one is reachable on the session bus.
// Only where there is none at all (no session bus, or nothing on it provides a secret
// service; a headless server, say) does the token go to a private file instead (TokenFile).
// A store that is there but fails or is not unlocked in time is a failure, never a reason to
// write the token to disk. Loading follows the same choice; while the store is reachable a
// token left in the file from a session without one is moved into the store, and the file
// never survives a save or delete made with the store.
//
// The operations are coroutines so that the event loop keeps running while the store answers
// (or the user unlocks it). Each says how it went: a failed save leaves no token, a failed
// delete keeps the old one, and a load tells "none stored" from "could not be read" (a locked
// keyring, say). Each waits for the store at most secretStoreTimeout(), and operations started
// one after another take effect in that order.
class Keychain {
public:
    // Long enough for the user to unlock a locked keyring, short of forever.
    static constexpr std::chrono::minutes defaultSecretStoreTimeout{2};

    // Automatic chooses per call as above; the others pin one backend (tests, diagnostics).
    enum class Backend { Automatic, SecretStore, TokenFile };

    explicit Keychain(Backend backend = Backend::Automatic,
                      std::chrono::milliseconds secretStoreTimeout = defaultSecretStoreTimeout);

    // Nothing on success.
    QCoro::Task<std::optional<KeychainError>> saveToken(QString token) const;
    QCoro::Task<TokenLookup> loadToken() const;
    // Nothing once no token is left.
    QCoro::Task<std::optional<KeychainError>> deleteToken() const;

    Backend backend() const { return m_backend; }
    std::chrono::milliseconds secretStoreTimeout() const { return m_secretStoreTimeout; }

    static QString service();
    static QString account();

private:
    bool useSecretStore() const;

    Backend m_backend;
    std::chrono::milliseconds m_secretStoreTimeout;
};
