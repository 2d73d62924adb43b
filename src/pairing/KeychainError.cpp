#include "KeychainError.h"

KeychainError::KeychainError(Kind kind, QString detail)
    : m_kind(kind), m_detail(std::move(detail)) {}

QString KeychainError::reason() const {
    switch (m_kind) {
    case Kind::Locked:
        return QStringLiteral("the keyring is locked");
    case Kind::Unreachable:
        return QStringLiteral("no keyring could be reached");
    case Kind::Other:
        break;
    }
    return m_detail.isEmpty() ? QStringLiteral("the keyring failed") : m_detail;
}
