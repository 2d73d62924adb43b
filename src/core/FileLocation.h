#pragma once

#include "FileDescriptor.h"

#include <QByteArray>
#include <QList>

#include <cerrno>

#include <sys/stat.h>

// Where an agent path really leads once every link on the way has been followed, held open so
// that what was checked is what gets used: the tools open, list and create only relative to
// these descriptors and never follow a link again. Made by AccessPolicy::locate.
class FileLocation {
public:
    // The directory that holds the item or, when folders on the way do not exist yet, the
    // deepest one that does. An O_PATH descriptor; invalid when the walk failed.
    FileDescriptor directory;
    // Folders still to be made below `directory`, in order, before `name` can exist.
    QList<QByteArray> missing;
    // The item's name in its directory; never a link. "." when the item is "/".
    QByteArray name;
    // The item itself when it exists (an O_PATH descriptor), and its status.
    FileDescriptor item;
    struct stat status {};
    // Absolute path of the item with every link resolved; when the walk failed, how far it got.
    QByteArray realPath;
    // Why the item cannot be reached: ENOENT when it (or a folder on the way) does not exist,
    // else the walk's error (ENOTDIR, ELOOP, ENAMETOOLONG, EACCES, ...). 0 when it exists.
    int error = 0;

    bool exists() const { return item.valid(); }
    bool isDirectory() const { return exists() && S_ISDIR(status.st_mode); }
    bool isRegularFile() const { return exists() && S_ISREG(status.st_mode); }
    // The walk could not be made for want of descriptors or memory: that says nothing about
    // the path, so it is reported as the failure it is rather than as a missing file.
    bool failedForWantOfResources() const {
        return error == EMFILE || error == ENFILE || error == ENOMEM;
    }
};
