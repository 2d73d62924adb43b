#pragma once

#include <QString>

#include <optional>

// Locks and unlocks the default collection of the gnome-keyring that run_sandboxed.sh starts
// on a private bus, straight over D-Bus, as a user (or the session ending) would. Locking never
// prompts. Unlocking uses gnome-keyring's own interface for unlocking with the password, so no
// prompt can appear there either; the password is the one run_sandboxed.sh gave the keyring.
// Every call waits a few seconds at most.
class KeyringControl {
public:
    // False, with the reason in error(), when the service refused or did not answer.
    bool lock();
    bool unlock();
    // Nothing when the service could not be asked.
    std::optional<bool> isLocked();
    // Items in the default collection with QtKeychain's attributes for `account`, locked or not.
    int entries(const QString& account);

    const QString& error() const { return m_error; }

private:
    QString defaultCollection();

    QString m_error;
};
