#pragma once

#include "CompanionError.h"

// A 200 answer to a pairing claim whose body is not the expected record. Deliberately not a
// PairError: the service answered, but with something this client cannot read.
class ClaimDecodeError : public CompanionError {
public:
    explicit ClaimDecodeError(QString message);
};
