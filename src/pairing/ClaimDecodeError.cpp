#include "ClaimDecodeError.h"

ClaimDecodeError::ClaimDecodeError(QString message) : CompanionError(std::move(message)) {}
