#include "TreeSnapshot.h"

#include <QCryptographicHash>
#include <QFile>

#include <climits>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString stamp(const timespec& time) {
    return QStringLiteral("%1.%2")
        .arg(qint64(time.tv_sec))
        .arg(qint64(time.tv_nsec), 9, 10, QLatin1Char('0'));
}

// Read without following a link and without changing anything, not even the access time
// where the caller owns the file.
QString contentHash(const QByteArray& path) {
    const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME);
    const int file = fd >= 0 ? fd : ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0) {
        return QStringLiteral("unreadable");
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    char buffer[64 * 1024];
    ssize_t got = 0;
    while ((got = ::read(file, buffer, sizeof buffer)) > 0) {
        hash.addData(QByteArrayView(buffer, got));
    }
    ::close(file);
    return got < 0 ? QStringLiteral("unreadable") : QString::fromLatin1(hash.result().toHex());
}

} // namespace

TreeSnapshot TreeSnapshot::take(const QString& root, const QStringList& leaveOut) {
    TreeSnapshot snapshot;
    snapshot.record(QFile::encodeName(root), QString(), leaveOut);
    return snapshot;
}

TreeSnapshot TreeSnapshot::takeEach(const QStringList& places) {
    TreeSnapshot snapshot;
    for (const QString& place : places) {
        snapshot.record(QFile::encodeName(place), place, {});
    }
    return snapshot;
}

void TreeSnapshot::record(const QByteArray& path, const QString& relative,
                          const QStringList& leaveOut) {
    if (leaveOut.contains(QFile::decodeName(path))) {
        return;
    }
    struct stat info {};
    if (::lstat(path.constData(), &info) != 0) {
        m_entries.insert(relative, QStringLiteral("gone"));
        return;
    }
    const QString common = QStringLiteral("mode %1 modified %2 changed %3")
                               .arg(info.st_mode, 0, 8)
                               .arg(stamp(info.st_mtim), stamp(info.st_ctim));
    if (S_ISLNK(info.st_mode)) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(path.constData(), target, sizeof target);
        m_entries.insert(relative,
                         QStringLiteral("link to ") +
                             QFile::decodeName(QByteArray(target, length > 0 ? length : 0)) + u' ' +
                             common);
        return;
    }
    if (S_ISREG(info.st_mode)) {
        m_entries.insert(relative, QStringLiteral("file of %1 bytes, sha256 %2, ")
                                           .arg(qint64(info.st_size))
                                           .arg(contentHash(path)) +
                                       common);
        return;
    }
    if (!S_ISDIR(info.st_mode)) {
        m_entries.insert(relative, QStringLiteral("special ") + common);
        return;
    }
    m_entries.insert(relative, QStringLiteral("folder ") + common);
    DIR* dir = ::opendir(path.constData());
    if (!dir) {
        m_entries.insert(relative + QStringLiteral("/*"), QStringLiteral("unreadable"));
        return;
    }
    QList<QByteArray> names;
    while (const dirent* entry = ::readdir(dir)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..") {
            names.append(name);
        }
    }
    ::closedir(dir);
    for (const QByteArray& name : std::as_const(names)) {
        const QString below = QFile::decodeName(name);
        record(path + '/' + name, relative.isEmpty() ? below : relative + u'/' + below, leaveOut);
    }
}

QStringList TreeSnapshot::changesSince(const TreeSnapshot& earlier) const {
    QStringList changes;
    for (auto it = earlier.m_entries.cbegin(); it != earlier.m_entries.cend(); ++it) {
        const auto now = m_entries.constFind(it.key());
        if (now == m_entries.cend()) {
            changes.append(QStringLiteral("removed '%1' (%2)").arg(it.key(), it.value()));
        } else if (now.value() != it.value()) {
            changes.append(
                QStringLiteral("changed '%1': %2 -> %3").arg(it.key(), it.value(), now.value()));
        }
    }
    for (auto it = m_entries.cbegin(); it != m_entries.cend(); ++it) {
        if (!earlier.m_entries.contains(it.key())) {
            changes.append(QStringLiteral("added '%1' (%2)").arg(it.key(), it.value()));
        }
    }
    return changes;
}
