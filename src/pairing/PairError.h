#pragma once

#include "CompanionError.h"

// Why a pairing claim failed, with the text the user sees as it stands.
class PairError : public CompanionError {
public:
    enum class Kind { Network, InvalidCode };

    static PairError network(QString message);
    static PairError invalidCode();

    Kind kind() const { return m_kind; }

private:
    PairError(Kind kind, QString message);

    Kind m_kind;
};
