#include "ScriptedCallHandler.h"

#include "FileService.h"

QCoro::Task<ToolResult> ScriptedCallHandler::runCall(QString method, QJsonObject params) {
    if (answer) {
        return answer(std::move(method), std::move(params));
    }
    return FileService::run(std::move(method), std::move(params), folders);
}
