#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QtGlobal>

#include <optional>

#include <sys/stat.h>

// What identifies one state of a file: which file it is (device and inode) and what was last
// done to it (size, modification and change times, in nanoseconds). Any write, by anyone,
// changes the change time, so two equal states mean nothing touched the file in between.
struct FileState {
    quint64 device = 0;
    quint64 inode = 0;
    qint64 size = 0;
    qint64 modified = 0;
    qint64 changed = 0;

    static FileState of(const struct stat& status);

    // The same file, whatever happened to its contents.
    bool sameFile(const FileState& other) const {
        return device == other.device && inode == other.inode;
    }
    friend bool operator==(const FileState&, const FileState&) = default;

    QJsonObject toJson() const;
    static std::optional<FileState> fromJson(const QJsonValue& value);
};
