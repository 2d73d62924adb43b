#include "FileState.h"

namespace {

qint64 nanoseconds(const struct timespec& time) {
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

} // namespace

FileState FileState::of(const struct stat& status) {
    return FileState{quint64(status.st_dev), quint64(status.st_ino), qint64(status.st_size),
                     nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

// Device and inode numbers are written as text: JSON numbers lose precision above 2^53.
QJsonObject FileState::toJson() const {
    return QJsonObject{{QStringLiteral("device"), QString::number(device)},
                       {QStringLiteral("inode"), QString::number(inode)},
                       {QStringLiteral("size"), QString::number(size)},
                       {QStringLiteral("modified"), QString::number(modified)},
                       {QStringLiteral("changed"), QString::number(changed)}};
}

std::optional<FileState> FileState::fromJson(const QJsonValue& value) {
    const QJsonObject object = value.toObject();
    bool ok[5] = {};
    FileState state;
    state.device = object.value(QStringLiteral("device")).toString().toULongLong(&ok[0]);
    state.inode = object.value(QStringLiteral("inode")).toString().toULongLong(&ok[1]);
    state.size = object.value(QStringLiteral("size")).toString().toLongLong(&ok[2]);
    state.modified = object.value(QStringLiteral("modified")).toString().toLongLong(&ok[3]);
    state.changed = object.value(QStringLiteral("changed")).toString().toLongLong(&ok[4]);
    for (const bool each : ok) {
        if (!each) {
            return std::nullopt;
        }
    }
    return state;
}
