#pragma once

#include "SharedFolder.h"
#include "ToolResult.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>

// The one entry point for the agents' tool calls. Stateless: every call gets the shared folders
// it may touch and returns one object, either the tool's result or {"error": message}.
class FileService {
public:
    // Never throws. A coroutine, because a tool may have to wait for the user without blocking
    // the event loop.
    static QCoro::Task<QJsonObject> handle(QString method, QJsonObject params,
                                           QList<SharedFolder> folders);
    // The same call, but a big answer (a folder listing) may come back as ready JSON text, the
    // same bytes QJsonDocument would write for handle()'s object. What the bridge uses.
    static QCoro::Task<ToolResult> run(QString method, QJsonObject params,
                                       QList<SharedFolder> folders);

    static QJsonObject errorObject(const QString& message);

private:
    static QCoro::Task<ToolResult> dispatch(QString method, QJsonObject params,
                                            QList<SharedFolder> folders, bool asJson);
};
