#include "ProcessPeek.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

QByteArray statOf(qint64 pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The fields after the command name, which may hold blanks and ")".
QList<QByteArray> statFields(qint64 pid) {
    const QByteArray stat = statOf(pid);
    const qsizetype close = stat.lastIndexOf(')');
    return close < 0 ? QList<QByteArray>() : stat.mid(close + 2).split(' ');
}

} // namespace

QList<qint64> ProcessPeek::children(qint64 parent) {
    QList<qint64> found;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric) {
            continue;
        }
        const QList<QByteArray> fields = statFields(pid);
        if (fields.size() > 1 && fields[1].toLongLong() == parent) {
            found.append(pid);
        }
    }
    return found;
}

QList<qint64> ProcessPeek::childrenRunning(qint64 parent, const QString& program) {
    const QString wanted = QFileInfo(program).canonicalFilePath();
    QList<qint64> found;
    for (const qint64 pid : children(parent)) {
        if (QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).canonicalFilePath() == wanted) {
            found.append(pid);
        }
    }
    return found;
}

char ProcessPeek::state(qint64 pid) {
    const QList<QByteArray> fields = statFields(pid);
    return fields.isEmpty() || fields[0].isEmpty() ? char(0) : fields[0][0];
}

qint64 ProcessPeek::unreadBytes(qint64 pid, int fd) {
    // A copy of the descriptor, only to ask the kernel; closed at once so that the process's
    // end is its own again.
    const long pidfd = ::syscall(SYS_pidfd_open, pid_t(pid), 0);
    if (pidfd < 0) {
        return -1;
    }
    const long copy = ::syscall(SYS_pidfd_getfd, int(pidfd), fd, 0);
    ::close(int(pidfd));
    if (copy < 0) {
        return -1;
    }
    int waiting = 0;
    const int status = ::ioctl(int(copy), FIONREAD, &waiting);
    ::close(int(copy));
    return status == 0 ? waiting : -1;
}
