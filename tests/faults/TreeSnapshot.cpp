#include "TreeSnapshot.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QStringList>

#include <sys/stat.h>

TreeSnapshot TreeSnapshot::of(const QString& root, const QStringList& leaveOut) {
    TreeSnapshot snapshot;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    const QString rootEntry = QStringLiteral(".");
    QStringList paths{root};
    while (it.hasNext()) {
        paths.append(it.next());
    }
    for (const QString& path : std::as_const(paths)) {
        struct stat info {};
        QString value = QStringLiteral("missing");
        if (::lstat(QFile::encodeName(path).constData(), &info) == 0) {
            const char kind = S_ISDIR(info.st_mode)   ? 'd'
                              : S_ISREG(info.st_mode) ? 'f'
                              : S_ISLNK(info.st_mode) ? 'l'
                                                      : 'o';
            value = QStringLiteral("%1 %2 %3.%4 %5")
                        .arg(QChar::fromLatin1(kind))
                        .arg(qint64(info.st_size))
                        .arg(qint64(info.st_mtim.tv_sec))
                        .arg(qint64(info.st_mtim.tv_nsec), 9, 10, QLatin1Char('0'))
                        .arg(info.st_mode & 07777, 4, 8, QLatin1Char('0'));
        }
        const QString relative = path == root ? rootEntry : QDir(root).relativeFilePath(path);
        if (leaveOut.contains(relative.section(u'/', 0, 0))) {
            continue;
        }
        snapshot.m_entries.insert(relative, value);
    }
    return snapshot;
}

QString TreeSnapshot::differences(const TreeSnapshot& other) const {
    QStringList lines;
    QStringList keys = m_entries.keys() + other.m_entries.keys();
    keys.removeDuplicates();
    keys.sort();
    for (const QString& key : std::as_const(keys)) {
        const QString mine = m_entries.value(key, QStringLiteral("(absent)"));
        const QString theirs = other.m_entries.value(key, QStringLiteral("(absent)"));
        if (mine != theirs) {
            lines.append(QStringLiteral("%1: %2 -> %3").arg(key, mine, theirs));
        }
    }
    return lines.join(u'\n');
}
