#pragma once

#include "AccessPolicy.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

// local_list_files: one level of one folder, or the list of shared folders.
namespace FolderLister {

// Throws ToolError, or FileSystemError when the directory cannot be read.
QJsonObject list(const QString& path, const AccessPolicy& policy);
// The same answer as the compact JSON text QJsonDocument writes for list(), written
// directly: for a big folder, building the QJsonObject costs more than everything else.
QByteArray listJson(const QString& path, const AccessPolicy& policy);

} // namespace FolderLister
