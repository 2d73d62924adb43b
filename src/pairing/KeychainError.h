#pragma once

#include <QString>

// Why the token store could not do what it was asked. The kind is what the user can act on;
// the detail keeps the store's own words.
class KeychainError {
public:
    enum class Kind {
        // The keyring is locked, or the user declined to unlock it.
        Locked,
        // No secret store answers.
        Unreachable,
        // Anything else: the detail says what.
        Other,
    };

    explicit KeychainError(Kind kind, QString detail = QString());

    Kind kind() const { return m_kind; }
    const QString& detail() const { return m_detail; }
    // A clause for a sentence the user reads, such as "the keyring is locked".
    QString reason() const;

    bool operator==(const KeychainError& other) const = default;

private:
    Kind m_kind;
    QString m_detail;
};
