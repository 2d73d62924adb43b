#pragma once

#include "SharedFolder.h"

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

    static QJsonObject errorObject(const QString& message);
};
