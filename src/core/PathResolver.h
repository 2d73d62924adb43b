#pragma once

#include "SharedFolder.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

// Turns agent paths ("<folder name>/<path inside it>") into absolute paths confined to one
// shared folder. Purely lexical: the file system is never consulted.
namespace PathResolver {

struct Resolved {
    QString root;               // the chosen shared folder, standardised
    QString item;               // the addressed location, standardised, equal to or below `root`
    qsizetype folderIndex = -1; // the chosen folder's place in the list
};

// The `path` parameter when it is a non-empty string, unchanged; throws ToolError otherwise.
QString requirePath(const QJsonObject& params);

// Throws ToolError for an unknown folder name or a path leaving the folder.
Resolved resolve(const QString& agentPath, const QList<SharedFolder>& folders);

// Absolute path with "." removed, ".." applied and repeated "/" folded; relative input is
// taken from the current directory. No trailing "/" except for the root itself.
QString standardize(const QString& path);

// The bytes to hand to the operating system, or nothing when the path cannot name a file
// (an embedded NUL would silently shorten it).
std::optional<QByteArray> nativePath(const QString& path);

// Exact name comparison under canonical equivalence.
bool sameName(const QString& a, const QString& b);

} // namespace PathResolver
