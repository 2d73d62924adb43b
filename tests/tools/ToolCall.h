#pragma once

#include "SharedFolder.h"

#include <QJsonObject>
#include <QList>
#include <QString>

// A tool call as the bridge makes it: through FileService::handle, waited for to the end.
class ToolCall {
public:
    static QJsonObject run(const QString& method, const QJsonObject& params,
                           const QList<SharedFolder>& folders);

    // A shared folder with a fresh id and no bookmark.
    static SharedFolder folder(const QString& name, const QString& path);

    // {"error": message}, the only shape a failure may have.
    static QJsonObject error(const QString& message);
};
