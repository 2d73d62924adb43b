#include "TokenFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t privateFile = 0600;
constexpr mode_t privateFolder = 0700;
// Tokens are short; anything this big is not ours.
constexpr off_t maximumSize = 64 * 1024;

QByteArray native(const QString& path) {
    return QFile::encodeName(path);
}

// Creates missing folders as 0700 (as the XDG base directory rules ask for the data home) and
// tightens the token's own folder if it was made wider by someone else.
bool ensurePrivateFolder(const QString& folder) {
    const QByteArray path = native(folder);
    struct stat info {};
    if (::lstat(path.constData(), &info) != 0) {
        if (errno != ENOENT) {
            return false;
        }
        const QString parent = QFileInfo(folder).path();
        if (parent != folder && !QFileInfo::exists(parent) && !ensurePrivateFolder(parent)) {
            return false;
        }
        if (::mkdir(path.constData(), privateFolder) != 0 && errno != EEXIST) {
            return false;
        }
        if (::lstat(path.constData(), &info) != 0) {
            return false;
        }
    }
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
        return false;
    }
    if ((info.st_mode & 07777) != privateFolder && ::chmod(path.constData(), privateFolder) != 0) {
        return false;
    }
    return true;
}

bool writeAll(int fd, const QByteArray& bytes) {
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += n;
    }
    return true;
}

} // namespace

TokenFile::TokenFile(QString path) : m_path(std::move(path)) {}

QString TokenFile::defaultPath() {
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (dataHome.isEmpty()) {
        return QString();
    }
    return dataHome + QStringLiteral("/app.quillmar.companion/device_token");
}

bool TokenFile::save(const QByteArray& bytes) const {
    if (m_path.isEmpty()) {
        return false;
    }
    const QFileInfo target(m_path);
    if (!ensurePrivateFolder(target.absolutePath())) {
        return false;
    }
    // mkostemp creates the file 0600 and exclusively, so there is never a moment in which
    // another user could open it; the rename then replaces the old token in one step.
    QByteArray temporary = native(target.absolutePath() + QStringLiteral("/.device_token.XXXXXX"));
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool ok = ::fchmod(fd, privateFile) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(temporary.constData(), native(target.absoluteFilePath()).constData()) == 0;
    if (!ok) {
        ::unlink(temporary.constData());
    }
    return ok;
}

std::optional<QByteArray> TokenFile::load() const {
    if (m_path.isEmpty()) {
        return std::nullopt;
    }
    const int fd = ::open(native(m_path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY);
    if (fd < 0) {
        return std::nullopt;
    }
    std::optional<QByteArray> result;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
        (info.st_mode & 077) == 0 && info.st_size <= maximumSize) {
        QByteArray bytes;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 || bytes.size() + n > maximumSize) {
                bytes.clear();
                break;
            }
            if (n == 0) {
                result = bytes;
                break;
            }
            bytes.append(buffer, n);
        }
    }
    ::close(fd);
    return result;
}

bool TokenFile::remove() const {
    if (m_path.isEmpty()) {
        return true;
    }
    return ::unlink(native(m_path).constData()) == 0 || errno == ENOENT;
}
