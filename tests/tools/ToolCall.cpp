#include "ToolCall.h"

#include "FileService.h"

#include <QCoroTask>
#include <QUuid>

QJsonObject ToolCall::run(const QString& method, const QJsonObject& params,
                          const QList<SharedFolder>& folders) {
    return QCoro::waitFor(FileService::handle(method, params, folders));
}

SharedFolder ToolCall::folder(const QString& name, const QString& path) {
    return SharedFolder{QUuid::createUuid(), name, path, std::nullopt};
}

QJsonObject ToolCall::error(const QString& message) {
    return QJsonObject{{QStringLiteral("error"), message}};
}
