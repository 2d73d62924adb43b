#pragma once

#include "SharedFolder.h"

#include <QJsonObject>
#include <QList>

// local_search_files: files whose names contain a fragment (ignoring case) or match a shell
// wildcard, across every shared folder, depth first, up to a limit.
class FileSearcher {
public:
    static constexpr qint64 defaultLimit = 25;
    static constexpr qint64 maximumLimit = 100;

    // Throws ToolError when `query` is missing or empty; nothing else fails.
    static QJsonObject search(const QJsonObject& params, const QList<SharedFolder>& folders);
};
