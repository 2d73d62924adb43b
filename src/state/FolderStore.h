#pragma once

#include "SharedFolder.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// The persisted list of shared folders and the folder chooser. Linux has no sandbox: a bookmark
// is the folder's file URL, and activating a record only resolves it to the folder's path.
class FolderStore {
public:
    static QList<SharedFolder> load();
    static void save(const QList<SharedFolder>& folders);
    static QList<SharedFolder> activate(const QList<SharedFolder>& folders);
    // Shows the chooser; the new record, or nothing when cancelled. Does not save.
    static std::optional<SharedFolder> pick(const QList<SharedFolder>& existing);
    // The record for a folder chosen some other way (the command line). Does not save.
    static SharedFolder makeRecord(const QString& path, const QList<SharedFolder>& existing);

    // "Documents", then "Documents 2", "Documents 3", ... whichever is free in `existing`.
    static QString uniqueName(const QString& base, const QList<SharedFolder>& existing);

    static std::optional<QByteArray> makeBookmark(const QString& path);
    static std::optional<QString> resolveBookmark(const QByteArray& bookmark);

    static QString settingsKey();
};
