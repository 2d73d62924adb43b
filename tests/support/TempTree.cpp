#include "TempTree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

TempTree::TempTree() {
    QVERIFY2(m_dir.isValid(), "cannot create a temporary directory");
}

TempTree::~TempTree() {
    // Tests take permissions away; give them back so the tree can be removed.
    QDirIterator it(m_dir.path(),
                    QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks,
                    QDirIterator::Subdirectories);
    ::chmod(QFile::encodeName(m_dir.path()).constData(), 0700);
    while (it.hasNext()) {
        const QString entry = it.next();
        const QFileInfo info(entry);
        if (info.isDir() && !info.isSymLink()) {
            ::chmod(QFile::encodeName(entry).constData(), 0700);
        }
    }
}

QString TempTree::path(const QString& relative) const {
    return relative.isEmpty() ? m_dir.path() : m_dir.path() + u'/' + relative;
}

QString TempTree::file(const QString& relative, const QByteArray& bytes) const {
    const QString full = path(relative);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(bytes) != bytes.size()) {
        qFatal("cannot write %s", qPrintable(full));
    }
    return full;
}

QString TempTree::dir(const QString& relative) const {
    const QString full = path(relative);
    QDir().mkpath(full);
    return full;
}

QString TempTree::symlink(const QString& relative, const QString& target) const {
    const QString full = path(relative);
    QDir().mkpath(QFileInfo(full).absolutePath());
    if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(full).constData()) !=
        0) {
        qFatal("cannot create link %s", qPrintable(full));
    }
    return full;
}

void TempTree::setModified(const QString& relative, qint64 seconds, long nanoseconds) const {
    timespec times[2];
    times[0].tv_sec = static_cast<time_t>(seconds);
    times[0].tv_nsec = nanoseconds;
    times[1] = times[0];
    if (::utimensat(AT_FDCWD, QFile::encodeName(path(relative)).constData(), times,
                    AT_SYMLINK_NOFOLLOW) != 0) {
        qFatal("cannot set the time of %s", qPrintable(relative));
    }
}

void TempTree::chmod(const QString& relative, unsigned mode) const {
    ::chmod(QFile::encodeName(path(relative)).constData(), mode);
}

QByteArray TempTree::contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

bool TempTree::overwrite(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
