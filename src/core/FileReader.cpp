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

// What ICU's character rules decide from the code points themselves, whatever precedes them.
// Lets a cluster that goes on and on grow without running ICU over it again at every read.
namespace JoinRules {

struct Maps {
    const UCPMap* breaks = nullptr;
    const UCPMap* indic = nullptr;
};

const Maps& maps() {
    static const Maps loaded = [] {
        UErrorCode status = U_ZERO_ERROR;
        const UCPMap* breaks = u_getIntPropertyMap(UCHAR_GRAPHEME_CLUSTER_BREAK, &status);
        const UCPMap* indic = u_getIntPropertyMap(UCHAR_INDIC_SYLLABIC_CATEGORY, &status);
        return U_SUCCESS(status) ? Maps{breaks, indic} : Maps{}; // without them ICU decides all
    }();
    return loaded;
}

bool isControl(uint32_t breakClass) {
    return breakClass == U_GCB_CONTROL || breakClass == U_GCB_CR || breakClass == U_GCB_LF;
}

// Pairs that the rules join on their own (CR LF, Hangul syllables, marks and joiners after
// anything but a control, anything but a control after a prepended mark): no other rule
// breaks them, so they join whatever came before.
bool alwaysJoined(char32_t before, char32_t after) {
    const UCPMap* breaks = maps().breaks;
    if (!breaks) {
        return false;
    }
    const uint32_t left = ucpmap_get(breaks, static_cast<UChar32>(before));
    const uint32_t right = ucpmap_get(breaks, static_cast<UChar32>(after));
    if (left == U_GCB_CR) {
        return right == U_GCB_LF;
    }
    if (isControl(left) || isControl(right)) {
        return false;
    }
    if (right == U_GCB_EXTEND || right == U_GCB_ZWJ || right == U_GCB_SPACING_MARK ||
        left == U_GCB_PREPEND) {
        return true;
    }
    switch (left) {
    case U_GCB_L:
        return right == U_GCB_L || right == U_GCB_V || right == U_GCB_LV || right == U_GCB_LVT;
    case U_GCB_LV:
    case U_GCB_V:
        return right == U_GCB_V || right == U_GCB_T;
    case U_GCB_LVT:
    case U_GCB_T:
        return right == U_GCB_T;
    default:
        return false;
    }
}

// Whether ICU started at this code point gives the boundaries the whole text has after it. The
// rules that look further back than one code point (emoji joined by a joiner, Indic consonants
// joined by a virama, pairs of regional indicators) only look back across marks, joiners,
// viramas, regional indicators and prepended marks; anything else ends what they can see.
bool isRestartPoint(char32_t c) {
    const Maps& loaded = maps();
    if (!loaded.breaks) {
        return false;
    }
    const uint32_t breakClass = ucpmap_get(loaded.breaks, static_cast<UChar32>(c));
    return breakClass != U_GCB_EXTEND && breakClass != U_GCB_ZWJ &&
           breakClass != U_GCB_REGIONAL_INDICATOR && breakClass != U_GCB_PREPEND &&
           ucpmap_get(loaded.indic, static_cast<UChar32>(c)) != U_INSC_VIRAMA;
}

} // namespace JoinRules

// Code points of the decoded text, which is well-formed UTF-16: the decoder never leaves half
// of a surrogate pair.
qsizetype nextCodePoint(const char16_t* chars, qsizetype at, qsizetype size) {
    return at + (QChar::isHighSurrogate(chars[at]) && at + 1 < size &&
                         QChar::isLowSurrogate(chars[at + 1])
                     ? 2
                     : 1);
}

qsizetype previousCodePoint(const char16_t* chars, qsizetype at) {
    return at -
           (at >= 2 && QChar::isLowSurrogate(chars[at - 1]) && QChar::isHighSurrogate(chars[at - 2])
                ? 2
                : 1);
}

char32_t codePointAt(const char16_t* chars, qsizetype at, qsizetype size) {
    if (QChar::isHighSurrogate(chars[at]) && at + 1 < size &&
        QChar::isLowSurrogate(chars[at + 1])) {
        return QChar::surrogateToUcs4(chars[at], chars[at + 1]);
    }
    return chars[at];
}

// The last restart point in [from, before), or `from` (itself one) when there is none.
qsizetype lastRestartPoint(const char16_t* chars, qsizetype from, qsizetype before) {
    qsizetype at = before;
    while (at > from) {
        at = previousCodePoint(chars, at);
        if (JoinRules::isRestartPoint(codePointAt(chars, at, before))) {
            return at;
        }
    }
    return from;
}

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
    // `clusters` characters end at or before `confirmed`; they are counted and final. Cluster
    // boundaries before the last decoded code point are final: the rules only look at the code
    // points on both sides and before.
    qsizetype confirmed = 0;
    qsizetype clusters = 0;
    // The character that starts at `confirmed` goes on at least to `decided`, `length` code
    // points; whether it ends there is still open.
    qsizetype decided = 0;
    qsizetype length = 0;
    // ICU started here gives the boundaries the whole text has after it: a cluster boundary, or
    // a restart point inside a cluster. Never after `decided`.
    qsizetype restart = 0;
    bool endOfFile = false;

    const auto finish = [&](bool truncated) {
        if (truncated) {
            text.truncate(confirmed);
        }
        text.squeeze(); // in place, where a copy would briefly hold the text twice
        result.content = std::move(text);
        result.truncated = truncated;
        return 0;
    };

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
        while (true) {
            if (clusters >= limit && confirmed < size) {
                return finish(true); // all wanted characters are final and another one begins
            }
            // A character that began in an earlier read, or after a cut inside a cluster: ICU
            // would have to start again further back, maybe at the start of a cluster as long
            // as everything read so far.
            bool insideCluster = true;
            if (decided == confirmed) {
                // Runs of plain characters, most text, one character each.
                const qsizetype from = confirmed;
                while (clusters < limit && confirmed + 1 < size &&
                       plain.boundaryBetween(chars[confirmed], chars[confirmed + 1])) {
                    ++clusters;
                    ++confirmed;
                }
                if (confirmed != from) {
                    decided = restart = confirmed;
                    continue;
                }
                if (confirmed == size) {
                    break;
                }
                insideCluster = restart < confirmed;
                decided = nextCodePoint(chars, confirmed, size);
                length = 1;
            }
            if (insideCluster) {
                // Along pairs that always join, without ICU, up to the cap.
                while (decided < size && length < characterCodePointLimit &&
                       JoinRules::alwaysJoined(
                           codePointAt(chars, previousCodePoint(chars, decided), size),
                           codePointAt(chars, decided, size))) {
                    decided = nextCodePoint(chars, decided, size);
                    ++length;
                }
                if (decided == size) {
                    break; // the character may still grow, or this is the end
                }
                if (length == characterCodePointLimit) {
                    ++clusters; // cut here, whatever ICU would say
                    confirmed = decided;
                    continue;
                }
                restart = lastRestartPoint(chars, restart, decided);
            }

            // ICU from the restart point up to the next certain boundary, or to the end of what
            // is decoded.
            qsizetype end = decided;
            while (end < size && !plain.boundaryBetween(chars[end - 1], chars[end])) {
                ++end;
            }
            const qsizetype start = restart;
            if (!breaks.setText(text.constData() + start, end - start)) {
                return EOVERFLOW;
            }
            qsizetype previous = start;
            qsizetype next = 0;
            while ((next = breaks.next()) != -1 && start + next > previous) {
                const qsizetype boundary = previous = start + next;
                if (boundary < decided) {
                    continue; // settled before
                }
                if (boundary - confirmed > characterCodePointLimit || boundary == size) {
                    // Long enough to be cut, or maybe not over yet: code point by code point.
                    while (decided < boundary) {
                        if (length == characterCodePointLimit) {
                            ++clusters;
                            confirmed = decided;
                            length = 0;
                            if (clusters >= limit) {
                                return finish(true);
                            }
                        }
                        decided = nextCodePoint(chars, decided, size);
                        ++length;
                    }
                    if (boundary == size && !endOfFile) {
                        break; // the next code point may still join this cluster
                    }
                }
                ++clusters;
                confirmed = decided = restart = boundary;
                length = 0;
                if (clusters >= limit && confirmed < size) {
                    return finish(true);
                }
            }
            if (confirmed != end) {
                break; // more input settles the last cluster; ICU stopping short never spins
            }
        }
        if (endOfFile) {
            return finish(false);
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
