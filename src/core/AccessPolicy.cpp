#include "AccessPolicy.h"

#include "FileNameCodec.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The kernel's own limit on links followed in one lookup.
constexpr int mostLinks = 40;

FileDescriptor openRoot() {
    return FileDescriptor(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Components of `path` pushed so that taking from the back yields them in order.
void pushComponents(std::vector<QByteArray>& pending, QByteArrayView path) {
    qsizetype end = path.size();
    while (end > 0) {
        qsizetype start = end;
        while (start > 0 && path[start - 1] != '/') {
            --start;
        }
        if (start < end) {
            pending.emplace_back(path.sliced(start, end - start).toByteArray());
        }
        end = start - 1;
    }
}

bool isDot(const QByteArray& part) {
    return part.isEmpty() || part == ".";
}

// Whether anything but "." is still to come: then the current item must be a directory.
bool moreToCome(const std::vector<QByteArray>& pending) {
    for (const QByteArray& part : pending) {
        if (!isDot(part)) {
            return true;
        }
    }
    return false;
}

QByteArray readLink(int fd) {
    QByteArray target(PATH_MAX, Qt::Uninitialized);
    const ssize_t length = ::readlinkat(fd, "", target.data(), std::size_t(target.size()));
    if (length <= 0 || length >= target.size()) {
        return QByteArray();
    }
    target.truncate(length);
    return target;
}

// Opens the real directory `path` ("" is "/") from the top without following anything: every
// component must still be the directory it was when the walk went through it.
FileDescriptor reopenDirectory(const QByteArray& path) {
    FileDescriptor dir = openRoot();
    std::vector<QByteArray> parts;
    pushComponents(parts, path);
    while (dir.valid() && !parts.empty()) {
        dir = FileDescriptor(::openat(dir.get(), parts.back().constData(),
                                      O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        parts.pop_back();
    }
    return dir;
}

QByteArray parentOf(const QByteArray& path) {
    const qsizetype slash = path.lastIndexOf('/');
    return slash <= 0 ? QByteArray() : path.left(slash);
}

struct Walk {
    FileLocation location;
    int linksFollowed = 0;
};

// `part` and everything after it do not exist. They can be created only when none of them
// climbs back up: going through a folder that is not there fails.
void missingFrom(Walk& walk, FileDescriptor dir, const QByteArray& real, QByteArray part,
                 std::vector<QByteArray>& pending) {
    FileLocation& location = walk.location;
    location.error = ENOENT;
    location.realPath = real + '/' + part;
    QList<QByteArray> remaining{std::move(part)};
    while (!pending.empty()) {
        QByteArray next = std::move(pending.back());
        pending.pop_back();
        if (isDot(next)) {
            continue;
        }
        if (next == "..") {
            return;
        }
        location.realPath += '/' + next;
        remaining.append(std::move(next));
    }
    if (location.realPath.size() >= PATH_MAX) {
        location.error = ENAMETOOLONG;
        return;
    }
    location.name = remaining.takeLast();
    location.missing = std::move(remaining);
    location.directory = std::move(dir);
}

// Resolves `path` one component at a time with O_PATH | O_NOFOLLOW, reading each link itself,
// so that nothing the walk did not see can redirect it.
Walk walk(const QByteArray& path) {
    Walk walk;
    FileLocation& location = walk.location;
    std::vector<QByteArray> pending;
    pushComponents(pending, path);
    FileDescriptor dir = openRoot();
    QByteArray real; // "" stands for "/"
    if (!dir.valid()) {
        location.error = errno;
        return walk;
    }

    while (!pending.empty()) {
        QByteArray part = std::move(pending.back());
        pending.pop_back();
        if (isDot(part)) {
            continue;
        }
        if (part == "..") {
            real = parentOf(real);
            dir = reopenDirectory(real);
            if (!dir.valid()) {
                location.error = errno;
                location.realPath = real;
                return walk;
            }
            continue;
        }
        if (real.size() + 1 + part.size() >= PATH_MAX) {
            location.error = ENAMETOOLONG;
            location.realPath = real;
            return walk;
        }
        FileDescriptor next(::openat(dir.get(), part.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) {
            const int error = errno;
            if (error == ENOENT) {
                missingFrom(walk, std::move(dir), real, std::move(part), pending);
            } else {
                location.error = error;
                location.realPath = real + '/' + part;
            }
            return walk;
        }
        struct stat status {};
        if (::fstat(next.get(), &status) != 0) {
            location.error = errno;
            location.realPath = real + '/' + part;
            return walk;
        }
        if (S_ISLNK(status.st_mode)) {
            const QByteArray target = readLink(next.get());
            if (++walk.linksFollowed > mostLinks || target.isEmpty()) {
                location.error = target.isEmpty() ? ENOENT : ELOOP;
                location.realPath = real + '/' + part;
                return walk;
            }
            pushComponents(pending, target);
            if (target.startsWith('/')) {
                real.clear();
                dir = openRoot();
            }
            continue;
        }
        real += '/' + part;
        if (moreToCome(pending)) {
            if (!S_ISDIR(status.st_mode)) {
                location.error = ENOTDIR;
                location.realPath = real;
                return walk;
            }
            dir = std::move(next);
            continue;
        }
        location.directory = std::move(dir);
        location.name = std::move(part);
        location.item = std::move(next);
        location.status = status;
        location.realPath = std::move(real);
        return walk;
    }

    // Nothing named a last item: the path was "/" or ended by climbing up. The item is the
    // directory reached; its own directory is needed to open it by name.
    struct stat status {};
    if (::fstat(dir.get(), &status) != 0) {
        location.error = errno;
        return walk;
    }
    location.status = status;
    location.realPath = real.isEmpty() ? QByteArray("/") : real;
    if (real.isEmpty()) {
        location.directory = FileDescriptor(::dup(dir.get()));
        location.name = ".";
    } else {
        location.directory = reopenDirectory(parentOf(real));
        location.name = real.mid(real.lastIndexOf('/') + 1);
    }
    location.item = std::move(dir);
    return walk;
}

bool within(QByteArrayView path, QByteArrayView folder) {
    if (folder == "/") {
        return path.startsWith('/');
    }
    return path.startsWith(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

} // namespace

AccessPolicy::AccessPolicy(QList<SharedFolder> folders, const QStringList& ownFiles)
    : m_folders(std::move(folders)) {
    for (qsizetype i = 0; i < m_folders.size(); ++i) {
        QByteArray real = realOrLexical(m_folders[i].path);
        if (!real.isEmpty()) {
            m_roots.append(Root{std::move(real), i});
        }
    }
    for (const QString& file : ownFiles) {
        QByteArray real = realOrLexical(file);
        if (real.isEmpty() || real == "/") {
            continue;
        }
        m_ownParents.append(parentOf(real).isEmpty() ? QByteArray("/") : parentOf(real));
        m_own.append(std::move(real));
    }
}

QString AccessPolicy::outsideMessage() {
    return QStringLiteral("Path leads outside the shared folders.");
}

QString AccessPolicy::ownFilesMessage() {
    return QStringLiteral("The companion's own files cannot be reached.");
}

QByteArray AccessPolicy::realOrLexical(const QString& path) {
    const std::optional<QByteArray> native =
        PathResolver::nativePath(PathResolver::standardize(path));
    if (!native) {
        return QByteArray();
    }
    // Resolve the longest part that exists; what does not exist yet cannot hold a link.
    QByteArray existing = *native;
    QByteArray rest;
    while (true) {
        const std::unique_ptr<char, decltype(&std::free)> resolved(
            ::realpath(existing.constData(), nullptr), &std::free);
        if (resolved) {
            QByteArray real(resolved.get());
            if (!rest.isEmpty()) {
                real += (real == "/" ? QByteArray() : QByteArray("/")) + rest;
            }
            return real;
        }
        const qsizetype slash = existing.lastIndexOf('/');
        if (slash <= 0 || (errno != ENOENT && errno != ENOTDIR)) {
            return *native;
        }
        const QByteArray last = existing.mid(slash + 1);
        rest = rest.isEmpty() ? last : last + '/' + rest;
        existing.truncate(slash);
    }
}

QByteArray AccessPolicy::realRoot(const SharedFolder& folder) const {
    for (const Root& root : m_roots) {
        if (m_folders[root.folderIndex].id == folder.id &&
            m_folders[root.folderIndex].path == folder.path) {
            return root.realPath;
        }
    }
    return QByteArray();
}

qsizetype AccessPolicy::rootOf(QByteArrayView realPath) const {
    qsizetype best = -1;
    for (qsizetype i = 0; i < m_roots.size(); ++i) {
        if (within(realPath, m_roots[i].realPath) &&
            (best < 0 || m_roots[i].realPath.size() > m_roots[best].realPath.size())) {
            best = i;
        }
    }
    return best;
}

bool AccessPolicy::isOwn(QByteArrayView realPath) const {
    for (const QByteArray& own : m_own) {
        if (within(realPath, own)) {
            return true;
        }
    }
    return false;
}

bool AccessPolicy::hidesIn(QByteArrayView directory) const {
    for (const QByteArray& parent : m_ownParents) {
        if (parent == directory) {
            return true;
        }
    }
    return false;
}

bool AccessPolicy::hasOwnFilesBelow(QByteArrayView directory) const {
    for (const QByteArray& own : m_own) {
        if (within(own, directory) && own.size() > directory.size()) {
            return true;
        }
    }
    return false;
}

bool AccessPolicy::hides(QByteArrayView directory, QByteArrayView name) const {
    for (qsizetype i = 0; i < m_own.size(); ++i) {
        const QByteArray& own = m_own[i];
        if (m_ownParents[i] == directory && own.endsWith(name) && own.size() > name.size() &&
            own[own.size() - name.size() - 1] == '/') {
            return true;
        }
    }
    return false;
}

const SharedFolder* AccessPolicy::folderAt(QByteArrayView realPath) const {
    const qsizetype index = rootOf(realPath);
    return index < 0 ? nullptr : &m_folders[m_roots[index].folderIndex];
}

std::optional<QString> AccessPolicy::agentPath(const QByteArray& realPath) const {
    const qsizetype index = rootOf(realPath);
    if (index < 0) {
        return std::nullopt;
    }
    const Root& root = m_roots[index];
    const QString name = m_folders[root.folderIndex].name;
    if (realPath.size() == root.realPath.size()) {
        return name;
    }
    const qsizetype skip = root.realPath == "/" ? 1 : root.realPath.size() + 1;
    return name + u'/' + FileNameCodec::decode(QByteArrayView(realPath).sliced(skip));
}

void AccessPolicy::check(FileLocation& location, Purpose purpose, bool followedLinks) const {
    if (location.realPath.isEmpty()) {
        return;
    }
    if (location.error != 0 && location.error != ENOENT) {
        // The walk stopped part way. The lexical check already keeps a path without links in
        // its folder; one that went through a link must not have left the folders to get there.
        // Nor may how far it got tell anything about the companion's own files.
        if (followedLinks && rootOf(location.realPath) < 0) {
            throw ToolError(outsideMessage());
        }
        if (isOwn(location.realPath)) {
            throw ToolError(ownFilesMessage());
        }
        return;
    }
    if (rootOf(location.realPath) < 0) {
        throw ToolError(outsideMessage());
    }
    if (isOwn(location.realPath)) {
        throw ToolError(ownFilesMessage());
    }
    if (purpose == Purpose::Write && !location.exists() && location.directory.valid()) {
        // Folders are made in the deepest existing one; that must itself be shared.
        QByteArray deepest = location.realPath;
        for (qsizetype i = 0; i <= location.missing.size(); ++i) {
            deepest = parentOf(deepest);
        }
        if (rootOf(deepest.isEmpty() ? QByteArrayView("/") : QByteArrayView(deepest)) < 0) {
            // The shared folder itself is gone: nothing to create it in.
            location.directory.reset();
        }
    }
}

FileLocation AccessPolicy::locate(const QString& item, Purpose purpose) const {
    const std::optional<QByteArray> native = PathResolver::nativePath(item);
    if (!native) {
        FileLocation location;
        location.error = EINVAL;
        return location;
    }
    if (native->size() >= PATH_MAX) {
        FileLocation location;
        location.error = ENAMETOOLONG;
        return location;
    }
    Walk result = walk(*native);
    check(result.location, purpose, result.linksFollowed > 0);
    return std::move(result.location);
}

namespace {

// The kernel's name for an open descriptor, or nothing (no /proc, or it has been removed).
std::optional<QByteArray> placeOf(int fd) {
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    QByteArray where(PATH_MAX, Qt::Uninitialized);
    const ssize_t length = ::readlink(link.constData(), where.data(), std::size_t(where.size()));
    if (length <= 0 || length >= where.size()) {
        return std::nullopt; // no /proc: the walk's own checks are all there is
    }
    where.truncate(length);
    if (!where.startsWith('/') || where.endsWith(" (deleted)")) {
        return std::nullopt;
    }
    return where;
}

} // namespace

void AccessPolicy::confirmPlace(const QByteArray& place) const {
    if (rootOf(place) < 0) {
        throw ToolError(outsideMessage());
    }
    if (isOwn(place)) {
        throw ToolError(ownFilesMessage());
    }
}

void AccessPolicy::confirm(int fd) const {
    if (const std::optional<QByteArray> where = placeOf(fd)) {
        confirmPlace(*where);
    }
}

void AccessPolicy::confirmNew(int directory, QByteArrayView name) const {
    if (const std::optional<QByteArray> where = placeOf(directory)) {
        confirmPlace((*where == "/" ? QByteArray() : *where) + '/' + name.toByteArray());
    }
}
