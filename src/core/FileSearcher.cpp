#include "FileSearcher.h"

#include "Ascii.h"
#include "FileNameCodec.h"
#include "JsonParams.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <QJsonArray>
#include <QLoggingCategory>

#include <cstring>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/openat2.h>
#include <locale.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcTools, "quillmar.tools", QtWarningMsg)

namespace {

void asciiLower(const char* text, std::size_t length, std::string& out) {
    out.resize(length);
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        out[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
    }
}

// fnmatch follows the thread's locale. Patterns and names that are all ASCII match the same in
// every locale and take the fast single-byte path; anything else is matched as UTF-8 so that
// "?" stands for one character, whatever the user's environment says.
class WildcardLocale {
public:
    WildcardLocale() {
        static const locale_t plain = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
        static const locale_t utf8 = newlocale(LC_ALL_MASK, "C.UTF-8", locale_t(nullptr));
        m_plain = plain;
        m_utf8 = utf8 ? utf8 : plain;
        m_previous = m_plain ? uselocale(m_plain) : locale_t(nullptr);
    }
    ~WildcardLocale() {
        if (m_previous) {
            uselocale(m_previous);
        }
    }
    WildcardLocale(const WildcardLocale&) = delete;
    WildcardLocale& operator=(const WildcardLocale&) = delete;

    bool match(const char* pattern, bool patternAscii, const char* name, std::size_t length) {
        if (patternAscii && Ascii::isAscii(name, length)) {
            return ::fnmatch(pattern, name, 0) == 0;
        }
        if (m_utf8) {
            uselocale(m_utf8);
        }
        const bool matched = ::fnmatch(pattern, name, 0) == 0;
        if (m_plain) {
            uselocale(m_plain);
        }
        return matched;
    }

private:
    locale_t m_plain = nullptr;
    locale_t m_utf8 = nullptr;
    locale_t m_previous = nullptr;
};

class NameMatcher {
public:
    explicit NameMatcher(const QString& query)
        : m_wildcard(query.contains(u'*') || query.contains(u'?') || query.contains(u'[')) {
        if (m_wildcard) {
            m_pattern = query.toUtf8();
            m_patternAscii =
                Ascii::isAscii(m_pattern.constData(), static_cast<std::size_t>(m_pattern.size()));
        } else {
            m_lowerQuery = query.normalized(QString::NormalizationForm_C).toLower();
            m_lowerQueryAscii = Ascii::isAscii(m_lowerQuery);
            if (m_lowerQueryAscii) {
                m_lowerQueryBytes = m_lowerQuery.toStdString();
            }
        }
    }

    bool matches(const char* name, std::size_t length) {
        if (m_wildcard) {
            return m_locale.match(m_pattern.constData(), m_patternAscii, name, length);
        }
        if (Ascii::isAscii(name, length)) {
            // An ASCII name lower-cases to ASCII, so a non-ASCII query cannot occur in it.
            if (!m_lowerQueryAscii) {
                return false;
            }
            asciiLower(name, length, m_scratch);
            return m_scratch.find(m_lowerQueryBytes) != std::string::npos;
        }
        const QString decoded =
            FileNameCodec::decode(QByteArrayView(name, static_cast<qsizetype>(length)));
        return decoded.normalized(QString::NormalizationForm_C).toLower().contains(m_lowerQuery);
    }

private:
    bool m_wildcard;
    QByteArray m_pattern;
    bool m_patternAscii = true;
    QString m_lowerQuery;
    bool m_lowerQueryAscii = true;
    std::string m_lowerQueryBytes;
    std::string m_scratch;
    WildcardLocale m_locale;
};

// One directory's entries, read in one pass and kept while its subdirectories are walked, so
// only one directory is open at a time whatever the depth.
struct DirectoryFrame {
    std::string relative; // path below the shared folder, "" or ending in "/"
    std::string names;    // entry names, each followed by NUL
    std::vector<std::uint32_t> offsets;
    std::vector<bool> isDirectory;
    std::size_t next = 0;
};

enum class EntryKind { RegularFile, Directory, Other };

EntryKind kindOf(int dirFd, const dirent* entry) {
    switch (entry->d_type) {
    case DT_REG:
        return EntryKind::RegularFile;
    case DT_DIR:
        return EntryKind::Directory;
    case DT_UNKNOWN: {
        struct stat info {};
        if (::fstatat(dirFd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            return EntryKind::Other;
        }
        if (S_ISREG(info.st_mode)) {
            return EntryKind::RegularFile;
        }
        return S_ISDIR(info.st_mode) ? EntryKind::Directory : EntryKind::Other;
    }
    default:
        return EntryKind::Other;
    }
}

// Opens a directory of the shared folder without following any link on the way, so that a
// folder swapped for a link while the search runs is not walked into. `path` is real (the
// folder's own links are resolved), so no link is legitimately left in it.
int openWithoutLinks(const std::string& path, const AccessPolicy& policy) {
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS) {
        return int(fd);
    }
    // Kernels before 5.6: no link as the last step, and the descriptor must still be inside.
    const int plain = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    try {
        if (plain >= 0) {
            policy.confirm(plain);
        }
    } catch (const ToolError& error) {
        qCDebug(lcTools) << "folder skipped:" << error.message();
        ::close(plain);
        return -1;
    }
    return plain;
}

// Reads one directory; regular files and directories are kept, everything else (links,
// devices, sockets) and the companion's own files are dropped here. False when the directory
// cannot be opened.
bool readDirectory(const std::string& rootPath, const QByteArray& rootReal, DirectoryFrame& frame,
                   const AccessPolicy& policy, bool mayHide) {
    const int fd = openWithoutLinks(rootPath + frame.relative, policy);
    if (fd < 0) {
        return false;
    }
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return false;
    }
    QByteArray realDirectory;
    if (mayHide) {
        realDirectory = rootReal;
        if (!frame.relative.empty()) {
            if (realDirectory != "/") {
                realDirectory += '/';
            }
            realDirectory.append(frame.relative.data(), qsizetype(frame.relative.size() - 1));
        }
        mayHide = policy.hidesIn(realDirectory);
    }
    const int dirFd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        const EntryKind kind = kindOf(dirFd, entry);
        if (kind == EntryKind::Other) {
            continue;
        }
        if (mayHide && policy.hides(realDirectory, QByteArrayView(name))) {
            continue;
        }
        frame.offsets.push_back(static_cast<std::uint32_t>(frame.names.size()));
        frame.names.append(name);
        frame.names.push_back('\0');
        frame.isDirectory.push_back(kind == EntryKind::Directory);
    }
    ::closedir(dir);
    return true;
}

} // namespace

QJsonObject FileSearcher::search(const QJsonObject& params, const AccessPolicy& policy) {
    const QString query = JsonParams::string(params, QStringLiteral("query")).value_or(QString());
    if (query.isEmpty()) {
        throw ToolError(QStringLiteral("A 'query' is required."));
    }
    qint64 limit = defaultLimit;
    if (const auto requested = JsonParams::integer(params, QStringLiteral("max_results"))) {
        limit = std::min(*requested, maximumLimit);
    }

    NameMatcher matcher(query);
    QJsonArray matches;
    bool done = false;

    for (const SharedFolder& folder : policy.folders()) {
        if (done) {
            break;
        }
        const QByteArray rootReal = policy.realRoot(folder);
        if (rootReal.isEmpty() || policy.isOwn(rootReal)) {
            continue;
        }
        std::string rootPath = rootReal.toStdString();
        if (rootPath.back() != '/') {
            rootPath.push_back('/');
        }
        const bool mayHide = policy.hasOwnFilesBelow(rootReal);
        const QString agentPrefix = folder.name + u'/';

        std::vector<DirectoryFrame> stack(1);
        if (!readDirectory(rootPath, rootReal, stack.back(), policy, mayHide)) {
            continue; // a folder that cannot be walked is skipped silently
        }
        while (!stack.empty() && !done) {
            DirectoryFrame& frame = stack.back();
            if (frame.next == frame.offsets.size()) {
                stack.pop_back();
                continue;
            }
            const std::size_t index = frame.next++;
            const char* name = frame.names.data() + frame.offsets[index];
            const std::size_t length = std::strlen(name);
            if (frame.isDirectory[index]) {
                DirectoryFrame child;
                child.relative = frame.relative;
                child.relative.append(name, length);
                child.relative.push_back('/');
                // `frame` may move when the stack grows; nothing below uses it.
                if (readDirectory(rootPath, rootReal, child, policy, mayHide)) {
                    stack.push_back(std::move(child));
                }
                continue;
            }
            if (!matcher.matches(name, length)) {
                continue;
            }
            QByteArray relative = QByteArray::fromStdString(frame.relative);
            relative.append(name, static_cast<qsizetype>(length));
            matches.append(agentPrefix + FileNameCodec::decode(relative));
            if (matches.size() >= limit) {
                done = true;
            }
        }
    }

    return QJsonObject{{QStringLiteral("query"), query},
                       {QStringLiteral("matches"), matches},
                       {QStringLiteral("count"), matches.size()}};
}
