#include "FileReader.h"

#include "FileSystemError.h"
#include "PathResolver.h"
#include "ToolError.h"
#include "Utf8Decoder.h"

#include <QTextBoundaryFinder>

#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t chunkSize = 256 * 1024;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

} // namespace

int FileReader::readText(int fd, qsizetype limit, Text& result) {
    std::vector<char> buffer(chunkSize);
    Utf8Decoder decoder;
    QString text;
    // Cluster boundaries before the last decoded character are final: the rules only look at
    // the characters on both sides and before. `confirmed` is the last such boundary.
    qsizetype confirmed = 0;
    qsizetype clusters = 0;
    bool endOfFile = false;

    while (true) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (got == 0) {
            endOfFile = true;
            decoder.finish(text);
        } else {
            decoder.feed(buffer.data(), static_cast<std::size_t>(got), text);
        }

        const qsizetype available = text.size() - confirmed;
        if (available > 0) {
            QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text.constData() + confirmed,
                                       available);
            qsizetype position = 0;
            qsizetype next = 0;
            while ((next = finder.toNextBoundary()) != -1 && next > position) {
                if (next == available && !endOfFile) {
                    break; // the next character may still join this cluster
                }
                ++clusters;
                position = next;
                if (clusters == limit) {
                    result.content = text.left(confirmed + position);
                    result.truncated = confirmed + position < text.size();
                    return 0;
                }
            }
            confirmed += position;
        }
        if (endOfFile) {
            result.content = text;
            result.truncated = false;
            return 0;
        }
    }
}

QJsonObject FileReader::read(const QString& path, const QList<SharedFolder>& folders) {
    const PathResolver::Resolved resolved = PathResolver::resolve(path, folders);
    const std::optional<QByteArray> native = PathResolver::nativePath(resolved.item);

    struct stat info {};
    if (!native || ::stat(native->constData(), &info) != 0 || S_ISDIR(info.st_mode)) {
        throw ToolError(QStringLiteral("File not found: ") + path);
    }
    // A FIFO or a device could block the caller for ever or never end; only files are read.
    if (!S_ISREG(info.st_mode)) {
        throw FileSystemError(QStringLiteral("it is not a regular file"), QStringLiteral("read"),
                              path);
    }
    FileDescriptor file(::open(native->constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0) {
        throw FileSystemError(errno, QStringLiteral("read"), path);
    }
    // The path may have been swapped between the two looks.
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        throw FileSystemError(QStringLiteral("it is not a regular file"), QStringLiteral("read"),
                              path);
    }

    Text text;
    if (const int error = readText(file.get(), characterLimit, text); error != 0) {
        throw FileSystemError(error, QStringLiteral("read"), path);
    }
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("content"), text.content},
                       {QStringLiteral("truncated"), text.truncated}};
}
