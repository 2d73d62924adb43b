#include "FileReader.h"

#include "FileSystemError.h"
#include "PathResolver.h"
#include "ToolError.h"
#include "Utf8Decoder.h"

#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unicode/ubrk.h>

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

// ICU's extended grapheme cluster breaks. Qt's own boundary finder is not used: it lets
// Indic-script tailoring split emoji, surrogate pairs and CR LF next to Indic text, and it
// breaks flags that follow an emoji.
class CharacterBreaks {
public:
    CharacterBreaks() : m_iterator(ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &m_status)) {}
    ~CharacterBreaks() {
        if (m_iterator) {
            ubrk_close(m_iterator);
        }
    }
    CharacterBreaks(const CharacterBreaks&) = delete;
    CharacterBreaks& operator=(const CharacterBreaks&) = delete;

    // The errno that describes a failure to set up, or 0.
    int error() const {
        if (U_SUCCESS(m_status)) {
            return 0;
        }
        return m_status == U_MEMORY_ALLOCATION_ERROR ? ENOMEM : ENOTSUP;
    }
    // False when ICU cannot take a text that long (one character of 2^31 code units).
    bool setText(const QChar* text, qsizetype length) {
        if (length > std::numeric_limits<int32_t>::max()) {
            return false;
        }
        UErrorCode status = U_ZERO_ERROR;
        ubrk_setText(m_iterator, reinterpret_cast<const UChar*>(text), static_cast<int32_t>(length),
                     &status);
        return U_SUCCESS(status);
    }
    // The next boundary after the current one, or -1 at the end.
    qsizetype next() {
        const int32_t boundary = ubrk_next(m_iterator);
        return boundary == UBRK_DONE ? -1 : boundary;
    }

private:
    UErrorCode m_status = U_ZERO_ERROR;
    UBreakIterator* m_iterator;
};

} // namespace

int FileReader::readText(int fd, qsizetype limit, Text& result) {
    CharacterBreaks breaks;
    if (const int error = breaks.error(); error != 0) {
        return error;
    }
    // Left uninitialised: read() fills what is used, and zeroing 256 KiB per call shows up in
    // small reads.
    const std::unique_ptr<char[]> buffer(new char[chunkSize]);
    Utf8Decoder decoder;
    QString text;
    // Cluster boundaries before the last decoded character are final: the rules only look at
    // the characters on both sides and before. `confirmed` is the last such boundary.
    qsizetype confirmed = 0;
    qsizetype clusters = 0;
    bool endOfFile = false;

    while (true) {
        const ssize_t got = ::read(fd, buffer.get(), chunkSize);
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
            decoder.feed(buffer.get(), static_cast<std::size_t>(got), text);
        }

        const qsizetype available = text.size() - confirmed;
        if (available > 0) {
            if (!breaks.setText(text.constData() + confirmed, available)) {
                return EOVERFLOW;
            }
            qsizetype position = 0;
            qsizetype next = 0;
            while ((next = breaks.next()) != -1 && next > position) {
                if (clusters >= limit) {
                    // All wanted characters are final and another one begins here.
                    result.content = text.left(confirmed + position);
                    result.truncated = true;
                    return 0;
                }
                if (next == available && !endOfFile) {
                    break; // the next character may still join this cluster
                }
                ++clusters;
                position = next;
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
