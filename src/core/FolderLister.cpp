#include "FolderLister.h"

#include "FileNameCodec.h"
#include "FileSystemError.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <QJsonArray>

#include <algorithm>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString trimSlashesAndBlanks(const QString& path) {
    qsizetype start = 0;
    qsizetype end = path.size();
    auto strip = [](QChar c) { return c == u'/' || c == u' '; };
    while (start < end && strip(path[start])) {
        ++start;
    }
    while (end > start && strip(path[end - 1])) {
        --end;
    }
    return path.mid(start, end - start);
}

// Whole seconds since the epoch, the fraction dropped toward zero (also before 1970).
qint64 wholeSeconds(const timespec& time) {
    qint64 seconds = time.tv_sec;
    if (seconds < 0 && time.tv_nsec > 0) {
        seconds += 1;
    }
    return seconds;
}

struct Entry {
    QString name;
    std::u32string sortKey;
    bool statOk = false;
    struct stat info {};
};

std::u32string sortKeyFor(const QString& name) {
    bool ascii = true;
    for (QChar c : name) {
        if (c.unicode() >= 0x80) {
            ascii = false;
            break;
        }
    }
    const QString normalized = ascii ? name : name.normalized(QString::NormalizationForm_C);
    return normalized.toStdU32String();
}

class DirectoryHandle {
public:
    explicit DirectoryHandle(DIR* dir) : m_dir(dir) {}
    ~DirectoryHandle() {
        if (m_dir) {
            closedir(m_dir);
        }
    }
    DirectoryHandle(const DirectoryHandle&) = delete;
    DirectoryHandle& operator=(const DirectoryHandle&) = delete;
    DIR* get() const { return m_dir; }

private:
    DIR* m_dir;
};

} // namespace

QJsonObject FolderLister::list(const QString& path, const QList<SharedFolder>& folders) {
    if (trimSlashesAndBlanks(path).isEmpty()) {
        QJsonArray items;
        for (const SharedFolder& folder : folders) {
            items.append(QJsonObject{{QStringLiteral("name"), folder.name},
                                     {QStringLiteral("type"), QStringLiteral("folder")},
                                     {QStringLiteral("size_bytes"), QJsonValue::Null},
                                     {QStringLiteral("modified"), 0}});
        }
        return QJsonObject{{QStringLiteral("path"), QString()},
                           {QStringLiteral("items"), items},
                           {QStringLiteral("count"), items.size()}};
    }

    const PathResolver::Resolved resolved = PathResolver::resolve(path, folders);
    const std::optional<QByteArray> native = PathResolver::nativePath(resolved.item);

    struct stat target {};
    if (!native || ::stat(native->constData(), &target) != 0) {
        throw ToolError(QStringLiteral("Path not found: ") + path);
    }
    if (!S_ISDIR(target.st_mode)) {
        throw ToolError(QStringLiteral("Path is a file, not a folder. Use local_read_file."));
    }

    DirectoryHandle dir(::opendir(native->constData()));
    if (!dir.get()) {
        throw FileSystemError(errno, QStringLiteral("list"), path);
    }
    const int dirFd = ::dirfd(dir.get());

    std::vector<Entry> entries;
    errno = 0;
    while (const dirent* raw = ::readdir(dir.get())) {
        const char* name = raw->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        Entry entry;
        entry.name = FileNameCodec::decode(name);
        entry.sortKey = sortKeyFor(entry.name);
        entry.statOk = ::fstatat(dirFd, name, &entry.info, AT_SYMLINK_NOFOLLOW) == 0;
        entries.push_back(std::move(entry));
        errno = 0;
    }
    if (errno != 0) {
        throw FileSystemError(errno, QStringLiteral("list"), path);
    }

    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.sortKey < b.sortKey; });

    QJsonArray items;
    for (const Entry& entry : entries) {
        const bool isFolder = entry.statOk && S_ISDIR(entry.info.st_mode);
        QJsonValue size = QJsonValue::Null;
        if (!isFolder) {
            size = entry.statOk ? static_cast<qint64>(entry.info.st_size) : qint64(0);
        }
        const qint64 modified = entry.statOk ? wholeSeconds(entry.info.st_mtim) : 0;
        items.append(QJsonObject{
            {QStringLiteral("name"), entry.name},
            {QStringLiteral("type"), isFolder ? QStringLiteral("folder") : QStringLiteral("file")},
            {QStringLiteral("size_bytes"), size},
            {QStringLiteral("modified"), modified}});
    }

    const QString inner =
        resolved.item == resolved.root ? QString() : resolved.item.mid(resolved.root.size() + 1);
    QString folderName;
    for (const SharedFolder& folder : folders) {
        if (folder.path == resolved.root) {
            folderName = folder.name;
            break;
        }
    }
    const QString agentPath = inner.isEmpty() ? folderName : folderName + u'/' + inner;
    return QJsonObject{{QStringLiteral("path"), agentPath},
                       {QStringLiteral("items"), items},
                       {QStringLiteral("count"), items.size()}};
}
