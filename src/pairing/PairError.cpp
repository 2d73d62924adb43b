#include "PairError.h"

PairError::PairError(Kind kind, QString message)
    : CompanionError(std::move(message)), m_kind(kind) {}

PairError PairError::network(QString message) {
    return PairError(Kind::Network, std::move(message));
}

PairError PairError::invalidCode() {
    return PairError(
        Kind::InvalidCode,
        QStringLiteral("That code is invalid or expired. Generate a fresh one in the web app."));
}
