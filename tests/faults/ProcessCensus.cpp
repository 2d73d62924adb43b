#include "ProcessCensus.h"

#include <QDir>
#include <QHash>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Plain reads: /proc's files claim a size of 0, and are read until the kernel says it is done.
QByteArray readProc(qint64 pid, const char* name) {
    const QByteArray path = "/proc/" + QByteArray::number(pid) + '/' + name;
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return QByteArray();
    }
    QByteArray bytes;
    char buffer[4096];
    for (int chunk = 0; chunk < 1024; ++chunk) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        bytes.append(buffer, n);
    }
    ::close(fd);
    return bytes;
}

// The parent's pid from /proc/PID/stat; the command name before it may hold blanks and ")".
qint64 parentOf(qint64 pid) {
    const QByteArray stat = readProc(pid, "stat");
    const qsizetype close = stat.lastIndexOf(')');
    if (close < 0) {
        return -1;
    }
    const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
    return fields.size() > 1 ? fields[1].toLongLong() : -1;
}

} // namespace

ProcessCensus::ProcessCensus(QObject* parent) : QObject(parent) {
    connect(&m_timer, &QTimer::timeout, this, &ProcessCensus::look);
    m_timer.start(10);
}

void ProcessCensus::look() {
    QHash<qint64, qint64> parents;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (numeric) {
            parents.insert(pid, parentOf(pid));
        }
    }
    const qint64 self = ::getpid();
    for (auto it = parents.cbegin(); it != parents.cend(); ++it) {
        qint64 ancestor = it.value();
        for (int depth = 0; depth < 64 && ancestor > 1 && ancestor != self; ++depth) {
            ancestor = parents.value(ancestor, -1);
        }
        if (ancestor != self) {
            continue;
        }
        Sighting sighting{it.key(), readProc(it.key(), "cmdline"), readProc(it.key(), "environ")};
        const QByteArray key = QByteArray::number(sighting.pid) + '\n' + sighting.commandLine +
                               '\n' + sighting.environment;
        if (!sighting.commandLine.isEmpty() && !m_known.contains(key)) {
            m_known.insert(key);
            m_sightings.append(sighting);
        }
    }
}
