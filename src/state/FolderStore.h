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
class FolderStore {
public:
    static QList<SharedFolder> load();
    static void save(const QList<SharedFolder>& folders);
    static QList<SharedFolder> activate(const QList<SharedFolder>& folders);
    // Asks `chooser` for a folder to share; its path, or nothing when cancelled.
    static QCoro::Task<std::optional<QString>> choosePath(FolderChooser& chooser);
    // The record for a folder chosen some other way (the command line). Does not save.
    static SharedFolder makeRecord(const QString& path, const QList<SharedFolder>& existing);

    // "Documents", then "Documents 2", "Documents 3", ... whichever is free in `existing`.
    static QString uniqueName(const QString& base, const QList<SharedFolder>& existing);

    static std::optional<QByteArray> makeBookmark(const QString& path);
    static std::optional<QString> resolveBookmark(const QByteArray& bookmark);

    static QString settingsKey();
};
