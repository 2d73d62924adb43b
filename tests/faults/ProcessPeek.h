#pragma once

#include <QList>
#include <QString>

// Looks at one process at a time through /proc, for tests that stop and kill their children's
// children: who a process's children are, what it runs, whether it still exists, and what
// waits unread on one of its sockets.
class ProcessPeek {
public:
    // The live children of `parent` (zombies included), in no particular order.
    static QList<qint64> children(qint64 parent);
    // The children of `parent` that run `program` (its absolute path).
    static QList<qint64> childrenRunning(qint64 parent, const QString& program);
    // The process's state letter ('R', 'S', 'T' stopped, 'Z' zombie, ...), 0 once it is gone
    // (ended and reaped).
    static char state(qint64 pid);
    // Bytes waiting to be read on descriptor `fd` of `pid` (a socket or pipe), -1 when that
    // cannot be seen (no such process, or the system does not allow it).
    static qint64 unreadBytes(qint64 pid, int fd);
};
