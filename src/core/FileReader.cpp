#include "FileReader.h"

#include "FileDescriptor.h"
#include "FileSystemError.h"
#include "PathResolver.h"
#include "ToolError.h"
#include "Utf8Decoder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/ucpmap.h>

namespace {

constexpr std::size_t chunkSize = 256 * 1024;

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

// BMP characters that ICU's character rules never join to a neighbour of the same kind: break
// class Other, Control, CR or LF, and not a virama (which joins Indic consonants). Between two of
// them there is always a boundary except inside CR LF, so runs of them (most text) need no
// break iterator. Taken from ICU's own properties so that it agrees with the rules it uses.
class PlainCharacters {
public:
    PlainCharacters() {
        UErrorCode status = U_ZERO_ERROR;
        const UCPMap* breaks = u_getIntPropertyMap(UCHAR_GRAPHEME_CLUSTER_BREAK, &status);
        const UCPMap* indic = u_getIntPropertyMap(UCHAR_INDIC_SYLLABIC_CATEGORY, &status);
        if (U_FAILURE(status)) {
            return; // nothing is plain: every character goes through ICU
        }
        forEachRange(breaks, [this](UChar32 start, UChar32 end, uint32_t value) {
            if (value == U_GCB_OTHER || value == U_GCB_CONTROL || value == U_GCB_CR ||
                value == U_GCB_LF) {
                for (UChar32 c = start; c <= end; ++c) {
                    m_bits[std::size_t(c) / 64] |= uint64_t(1) << (c % 64);
                }
            }
        });
        forEachRange(indic, [this](UChar32 start, UChar32 end, uint32_t value) {
            if (value == U_INSC_VIRAMA) {
                for (UChar32 c = start; c <= end; ++c) {
                    m_bits[std::size_t(c) / 64] &= ~(uint64_t(1) << (c % 64));
                }
            }
        });
        // Surrogates are halves of characters outside the BMP, never characters of their own.
        for (UChar32 c = 0xD800; c <= 0xDFFF; ++c) {
            m_bits[std::size_t(c) / 64] &= ~(uint64_t(1) << (c % 64));
        }
    }

    static const PlainCharacters& instance() {
        static const PlainCharacters table;
        return table;
    }

    // Whether a cluster boundary certainly falls between `a` and `b`.
    bool boundaryBetween(char16_t a, char16_t b) const {
        return isPlain(a) && isPlain(b) && !(a == u'\r' && b == u'\n');
    }

private:
    template <typename Visit> static void forEachRange(const UCPMap* map, Visit visit) {
        UChar32 start = 0;
        while (start <= 0xFFFF) {
            uint32_t value = 0;
            const UChar32 end =
                ucpmap_getRange(map, start, UCPMAP_RANGE_NORMAL, 0, nullptr, nullptr, &value);
            if (end < start) {
                return;
            }
            visit(start, std::min<UChar32>(end, 0xFFFF), value);
            start = end + 1;
        }
    }

    bool isPlain(char16_t c) const { return (m_bits[c / 64] >> (c % 64)) & 1; }

    std::array<uint64_t, 0x10000 / 64> m_bits{};
};

} // namespace

int FileReader::readText(int fd, qsizetype limit, Text& result) {
    CharacterBreaks breaks;
    if (const int error = breaks.error(); error != 0) {
        return error;
    }
    const PlainCharacters& plain = PlainCharacters::instance();
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
            // At most one UTF-16 unit per byte, plus what the decoder held back; grown
            // geometrically so that many chunks stay linear.
            const qsizetype needed = text.size() + got + 4;
            if (text.capacity() < needed) {
                text.reserve(std::max(needed, 2 * text.capacity()));
            }
            decoder.feed(buffer.get(), static_cast<std::size_t>(got), text);
        }

        const char16_t* chars = reinterpret_cast<const char16_t*>(text.constData());
        const qsizetype size = text.size();
        bool waitForMore = false;
        while (confirmed < size && !waitForMore) {
            if (clusters >= limit) {
                // All wanted characters are final and another one begins here.
                result.content = text.left(confirmed);
                result.truncated = true;
                return 0;
            }
            if (confirmed + 1 < size &&
                plain.boundaryBetween(chars[confirmed], chars[confirmed + 1])) {
                ++clusters;
                ++confirmed;
                continue;
            }
            // ICU up to the next certain boundary, or to the end of what is decoded.
            qsizetype end = confirmed + 2;
            while (end < size && !plain.boundaryBetween(chars[end - 1], chars[end])) {
                ++end;
            }
            end = std::min(end, size);
            const qsizetype available = end - confirmed;
            if (!breaks.setText(text.constData() + confirmed, available)) {
                return EOVERFLOW;
            }
            qsizetype position = 0;
            qsizetype next = 0;
            while ((next = breaks.next()) != -1 && next > position) {
                if (clusters >= limit) {
                    result.content = text.left(confirmed + position);
                    result.truncated = true;
                    return 0;
                }
                if (end == size && next == available && !endOfFile) {
                    waitForMore = true; // the next character may still join this cluster
                    break;
                }
                ++clusters;
                position = next;
            }
            if (position == 0) {
                waitForMore = true; // ICU found nothing to settle; never spin here
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

QJsonObject FileReader::read(const QString& path, const AccessPolicy& policy) {
    const PathResolver::Resolved resolved = PathResolver::resolve(path, policy.folders());
    const FileLocation location = policy.locate(resolved.item, AccessPolicy::Purpose::Read);
    if (location.failedForWantOfResources()) {
        throw FileSystemError(location.error, QStringLiteral("read"), path);
    }
    if (!location.exists() || location.isDirectory()) {
        throw ToolError(QStringLiteral("File not found: ") + path);
    }
    // A FIFO or a device could block the caller for ever or never end; only files are read.
    if (!location.isRegularFile()) {
        throw FileSystemError(QStringLiteral("it is not a regular file"), QStringLiteral("read"),
                              path);
    }
    const FileDescriptor file(::openat(location.directory.get(), location.name.constData(),
                                       O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    if (!file.valid()) {
        throw FileSystemError(errno, QStringLiteral("read"), path);
    }
    // Only the file that was checked is read, even if the name was swapped meanwhile.
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_dev != location.status.st_dev || info.st_ino != location.status.st_ino) {
        throw FileSystemError(QStringLiteral("it changed while it was being opened"),
                              QStringLiteral("read"), path);
    }
    policy.confirm(file.get());

    Text text;
    if (const int error = readText(file.get(), characterLimit, text); error != 0) {
        throw FileSystemError(error, QStringLiteral("read"), path);
    }
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("content"), text.content},
                       {QStringLiteral("truncated"), text.truncated}};
}
