#pragma once

#include "BridgeCallHandler.h"
#include "SharedFolder.h"

#include <QList>

#include <functional>

// The bridge's calls for the client tests: answered by `answer` when set, else by the file
// tools over `folders` as they are when the call starts (writes refused, nobody is asked).
class ScriptedCallHandler : public BridgeCallHandler {
public:
    using Answer = std::function<QCoro::Task<ToolResult>(QString method, QJsonObject params)>;

    QList<SharedFolder> folders;
    Answer answer;

    QCoro::Task<ToolResult> runCall(QString method, QJsonObject params) override;
};
