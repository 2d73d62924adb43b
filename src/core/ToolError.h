#pragma once

#include "CompanionError.h"

// A failure a file tool detected itself. `message` is the complete text the agent receives.
class ToolError : public CompanionError {
public:
    explicit ToolError(QString message);
};
