#pragma once

#include "AccessPolicy.h"

#include <QJsonObject>
#include <QList>

// local_search_files: files whose names contain a fragment (ignoring case) or match a shell
// wildcard, across every shared folder, depth first, up to a limit. Links are not followed, and
// the companion's own files are never found.
namespace FileSearcher {

inline constexpr qint64 defaultLimit = 25;
inline constexpr qint64 maximumLimit = 100;

// Throws ToolError when `query` is missing or empty; nothing else fails.
QJsonObject search(const QJsonObject& params, const AccessPolicy& policy);

} // namespace FileSearcher
