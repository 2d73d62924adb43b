#include "FolderLister.h"

#include "Ascii.h"
#include "CompactJson.h"
#include "FileNameCodec.h"
#include "FileSystemError.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <string_view>
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
    QByteArray rawName; // as readdir gave it
    bool ascii = true;
    // Decoded; for ASCII names only made when needed (the bytes are the text).
    QString name;
    // Sorting by Unicode scalar values is sorting UTF-8 bytes; non-ASCII names sort in NFC.
    QByteArray sortKey;
    bool statOk = false;
    struct stat info {};

    std::string_view key() const {
        const QByteArray& bytes = ascii ? rawName : sortKey;
        return std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    }
    QString decodedName() const { return ascii ? QString::fromLatin1(rawName) : name; }
    bool isFolder() const { return statOk && S_ISDIR(info.st_mode); }
    qint64 size() const { return statOk ? static_cast<qint64>(info.st_size) : 0; }
    qint64 modified() const { return statOk ? wholeSeconds(info.st_mtim) : 0; }
};

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

// Only characters from U+0300 on can change under NFC (combining marks, and later the
// characters NFC replaces); a name without any is its own normal form.
bool mayChangeUnderNfc(const QString& name) {
    for (const QChar c : name) {
        if (c.unicode() >= 0x300) {
            return true;
        }
    }
    return false;
}

// The first eight bytes of a sort key as one big-endian number: most comparisons end there. No
// name holds a zero byte, so padding with zeros keeps the order.
quint64 keyPrefix(std::string_view key) {
    quint64 prefix = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        prefix = (prefix << 8) | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0);
    }
    return prefix;
}

struct SortItem {
    quint64 prefix;
    const Entry* entry;
};

struct Listing {
    QString agentPath;
    std::vector<Entry> entries; // in readdir order
    // Into `entries`, whose storage stays put when the listing is moved.
    std::vector<const Entry*> sorted;
};

QJsonObject sharedFoldersObject(const QList<SharedFolder>& folders) {
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

Listing readFolder(const QString& path, const AccessPolicy& policy) {
    const QList<SharedFolder>& folders = policy.folders();
    const PathResolver::Resolved resolved = PathResolver::resolve(path, folders);
    const FileLocation location = policy.locate(resolved.item, AccessPolicy::Purpose::Read);
    if (location.failedForWantOfResources()) {
        throw FileSystemError(location.error, QStringLiteral("list"), path);
    }
    if (!location.exists()) {
        throw ToolError(QStringLiteral("Path not found: ") + path);
    }
    if (!location.isDirectory()) {
        throw ToolError(QStringLiteral("Path is a file, not a folder. Use local_read_file."));
    }

    // Opened by name in the directory that was checked (reading needs no search permission on
    // the folder itself), and only if it is still the folder that was checked.
    const int opened = ::openat(location.directory.get(), location.name.constData(),
                                O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (opened < 0) {
        throw FileSystemError(errno, QStringLiteral("list"), path);
    }
    DirectoryHandle dir(::fdopendir(opened));
    if (!dir.get()) {
        const int error = errno;
        ::close(opened);
        throw FileSystemError(error, QStringLiteral("list"), path);
    }
    const int dirFd = ::dirfd(dir.get());
    struct stat openedStatus {};
    if (::fstat(dirFd, &openedStatus) != 0 || openedStatus.st_dev != location.status.st_dev ||
        openedStatus.st_ino != location.status.st_ino) {
        throw FileSystemError(QStringLiteral("it changed while it was being opened"),
                              QStringLiteral("list"), path);
    }
    policy.confirm(dirFd);
    const bool mayHide = policy.hidesIn(location.realPath);

    Listing listing;
    errno = 0;
    while (const dirent* raw = ::readdir(dir.get())) {
        const char* name = raw->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        if (mayHide && policy.hides(location.realPath, QByteArrayView(name))) {
            continue;
        }
        Entry entry;
        entry.rawName = QByteArray(name);
        entry.ascii = Ascii::isAscii(entry.rawName.constData(), std::size_t(entry.rawName.size()));
        if (!entry.ascii) {
            entry.name = FileNameCodec::decode(entry.rawName);
            entry.sortKey = mayChangeUnderNfc(entry.name)
                                ? entry.name.normalized(QString::NormalizationForm_C).toUtf8()
                                : entry.name.toUtf8();
        }
        entry.statOk = ::fstatat(dirFd, name, &entry.info, AT_SYMLINK_NOFOLLOW) == 0;
        listing.entries.push_back(std::move(entry));
        errno = 0;
    }
    if (errno != 0) {
        throw FileSystemError(errno, QStringLiteral("list"), path);
    }

    std::vector<SortItem> items;
    items.reserve(listing.entries.size());
    for (const Entry& entry : listing.entries) {
        items.push_back(SortItem{keyPrefix(entry.key()), &entry});
    }
    // char_traits compares bytes as unsigned, so UTF-8 keys order like their code points.
    std::stable_sort(items.begin(), items.end(), [](const SortItem& a, const SortItem& b) {
        if (a.prefix != b.prefix) {
            return a.prefix < b.prefix;
        }
        return a.entry->key() < b.entry->key();
    });
    listing.sorted.reserve(items.size());
    for (const SortItem& item : items) {
        listing.sorted.push_back(item.entry);
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
    listing.agentPath = inner.isEmpty() ? folderName : folderName + u'/' + inner;
    return listing;
}

} // namespace

QJsonObject FolderLister::list(const QString& path, const AccessPolicy& policy) {
    if (trimSlashesAndBlanks(path).isEmpty()) {
        return sharedFoldersObject(policy.folders());
    }
    const Listing listing = readFolder(path, policy);
    QJsonArray items;
    for (const Entry* entry : listing.sorted) {
        const bool isFolder = entry->isFolder();
        items.append(QJsonObject{
            {QStringLiteral("name"), entry->decodedName()},
            {QStringLiteral("type"), isFolder ? QStringLiteral("folder") : QStringLiteral("file")},
            {QStringLiteral("size_bytes"),
             isFolder ? QJsonValue(QJsonValue::Null) : QJsonValue(entry->size())},
            {QStringLiteral("modified"), entry->modified()}});
    }
    return QJsonObject{{QStringLiteral("path"), listing.agentPath},
                       {QStringLiteral("items"), items},
                       {QStringLiteral("count"), items.size()}};
}

QByteArray FolderLister::listJson(const QString& path, const AccessPolicy& policy) {
    if (trimSlashesAndBlanks(path).isEmpty()) {
        return QJsonDocument(sharedFoldersObject(policy.folders())).toJson(QJsonDocument::Compact);
    }
    const Listing listing = readFolder(path, policy);
    // Keys in QJsonObject's order; about 80 bytes an entry besides its name.
    qsizetype expected = 64 + listing.agentPath.size() * 3;
    for (const Entry* entry : listing.sorted) {
        expected += 96 + entry->rawName.size();
    }
    CompactJson out(expected);
    out.raw("{\"count\":");
    out.integer(qint64(listing.sorted.size()));
    out.raw(",\"items\":[");
    bool first = true;
    for (const Entry* entry : listing.sorted) {
        out.raw(first ? QByteArrayView("{\"modified\":") : QByteArrayView(",{\"modified\":"));
        first = false;
        out.integer(entry->modified());
        out.raw(",\"name\":");
        if (entry->ascii) {
            out.asciiString(entry->rawName);
        } else {
            out.string(entry->name);
        }
        if (entry->isFolder()) {
            out.raw(",\"size_bytes\":null,\"type\":\"folder\"}");
        } else {
            out.raw(",\"size_bytes\":");
            out.integer(entry->size());
            out.raw(",\"type\":\"file\"}");
        }
    }
    out.raw("],\"path\":");
    out.string(listing.agentPath);
    out.raw("}");
    return out.take();
}
