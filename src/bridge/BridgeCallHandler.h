#pragma once

#include "ToolResult.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QString>

// Runs the service's tool calls for a BridgeClient; the owner decides which folders they reach
// and how a write is approved.
class BridgeCallHandler {
public:
    virtual ~BridgeCallHandler() = default;

    // One call, answered with the tool's result or {"error": message}. Never throws.
    virtual QCoro::Task<ToolResult> runCall(QString method, QJsonObject params) = 0;
};
