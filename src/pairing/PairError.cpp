#include "PairError.h"

namespace {

QString invalidCodeText() {
    return QStringLiteral("That code is invalid or expired. Generate a fresh one in the web app.");
}

} // namespace

PairError::PairError(Kind kind, QString message)
    : m_kind(kind), m_message(std::move(message)), m_utf8(description().toUtf8()) {}

PairError PairError::network(QString message) {
    return PairError(Kind::Network, std::move(message));
}

PairError PairError::invalidCode() {
    return PairError(Kind::InvalidCode, QString());
}

QString PairError::description() const {
    return m_kind == Kind::InvalidCode ? invalidCodeText() : m_message;
}
