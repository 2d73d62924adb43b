#pragma once

#include "SharedFolder.h"

#include <QCoroTask>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

class FolderChooser;

// The persisted list of shared folders and the folder chooser. Linux has no sandbox: a bookmark
// is the folder's file URL, and activating a record only resolves it to the folder's path.
namespace FolderStore {

QList<SharedFolder> load();
void save(const QList<SharedFolder>& folders);
QList<SharedFolder> activate(const QList<SharedFolder>& folders);
// Asks `chooser` for a folder to share; its path, or nothing when cancelled.
QCoro::Task<std::optional<QString>> choosePath(FolderChooser& chooser);
// The record for a folder chosen some other way (the command line). Does not save.
SharedFolder makeRecord(const QString& path, const QList<SharedFolder>& existing);

// "Documents", then "Documents 2", "Documents 3", ... whichever is free in `existing`.
QString uniqueName(const QString& base, const QList<SharedFolder>& existing);

std::optional<QByteArray> makeBookmark(const QString& path);
std::optional<QString> resolveBookmark(const QByteArray& bookmark);

QString settingsKey();

} // namespace FolderStore
