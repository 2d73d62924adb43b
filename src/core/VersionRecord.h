#pragma once

#include "FileState.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include <optional>

// One agent write that the user can undo: the file as it was before (its bytes are kept beside
// this record), or the fact that the write created the file.
struct VersionRecord {
    QString id;
    QDateTime time;
    // As the agent named it ("Docs/notes.txt").
    QString agentPath;
    // Where the file really is, every link resolved, as the file system spells it.
    QByteArray realPath;
    // The write made a new file: restoring removes it.
    bool created = false;
    // Bytes kept (0 for a created file).
    qint64 size = 0;
    // The file right before the write; absent for a created file.
    std::optional<FileState> before;
    // The file as the write left it; absent when the write never reported back (the file
    // tools stopped in the middle of it).
    std::optional<FileState> after;

    QJsonObject toJson() const;
    static std::optional<VersionRecord> fromJson(const QJsonObject& object);
};
