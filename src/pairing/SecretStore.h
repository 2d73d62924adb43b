#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QString>

#include <chrono>
#include <optional>

// The desktop's secret store (the Secret Service, or KWallet) through QtKeychain: one secret
// per service and account. QtKeychain runs its jobs one at a time in the order they were
// started, so operations started in sequence take effect in sequence.
class SecretStore {
public:
    enum class Outcome { Done, NotFound, Failed };

    struct Read {
        Outcome outcome = Outcome::Failed;
        QByteArray secret;
    };

    // Whether a store could answer at all: the session bus is up and something provides, or
    // can be started to provide, a secret service. Asks only the bus itself, so it returns at
    // once, and never prompts.
    static bool isReachable();

    // The secret's bytes, exactly as written. Waits at most `timeout` (an unlock prompt may be
    // on screen); a store that does not answer in time counts as Failed.
    static QCoro::Task<Read> read(QString service, QString account,
                                  std::chrono::milliseconds timeout);
    // Removes any old entry, then adds `secret` (stored as its UTF-8 bytes). Done only when the
    // add succeeded.
    static QCoro::Task<Outcome> replace(QString service, QString account, QString secret,
                                        std::chrono::milliseconds timeout);
    static QCoro::Task<Outcome> remove(QString service, QString account,
                                       std::chrono::milliseconds timeout);
};
