#include "ToolError.h"

ToolError::ToolError(QString message) : CompanionError(std::move(message)) {}
