#pragma once

#include "KeychainError.h"

#include <QString>

#include <optional>

// What loading the device token came to: the token, none stored (both empty), or a store that
// could not be read, in which case a token may exist but is out of reach.
struct TokenLookup {
    std::optional<QString> token;
    std::optional<KeychainError> error;
};
