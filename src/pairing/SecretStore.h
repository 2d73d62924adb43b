#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QString>

#include <chrono>

// The desktop's secret store (the Secret Service, or KWallet) through QtKeychain: one secret
// per service and account. QtKeychain runs its jobs one at a time in the order they were
// started, so operations started in sequence take effect in sequence.
namespace SecretStore {

enum class Outcome {
    Done,
    NotFound,
    // The entry is in a locked collection, or the user declined to unlock it.
    Locked,
    // No store answers on the bus.
    Unreachable,
    Failed,
};

struct Reply {
    Outcome outcome = Outcome::Failed;
    // What went wrong, as a clause for the user; the store's own words where it gave any.
    QString message;
    // For read only: the secret's bytes, exactly as written.
    QByteArray secret;
};

// Whether a store could answer at all: the session bus is up and something provides, or
// can be started to provide, a secret service. Asks only the bus itself, so it returns at
// once, and never prompts.
bool isReachable();

// Waits at most `timeout` (an unlock prompt may be on screen); a store that does not answer
// in time counts as Failed. An entry that exists but stayed locked is Locked, not NotFound.
QCoro::Task<Reply> read(QString service, QString account, std::chrono::milliseconds timeout);
// Removes any old entry, then adds `secret` (stored as its UTF-8 bytes). Done only when the
// add succeeded.
QCoro::Task<Reply> replace(QString service, QString account, QString secret,
                           std::chrono::milliseconds timeout);
// Done when no entry is left; Locked when one is left in a locked collection.
QCoro::Task<Reply> remove(QString service, QString account, std::chrono::milliseconds timeout);

} // namespace SecretStore
