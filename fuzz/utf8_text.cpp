// The repairing UTF-8 decoder and the character cut of local_read_file.
//  - Utf8Decoder fed in fuzzed chunks gives the same text as decoding in one go, and that text
//    is what ICU's own converter makes of the bytes (one U+FFFD per maximal subpart).
//  - FileReader::readText over a socket that delivers the same chunks, with a fuzzed limit,
//    gives what decoding the whole input and cutting it after `limit` characters gives, and says
//    truncated exactly when more characters follow. The characters are ICU's extended grapheme
//    clusters of the whole text, each cut into pieces of at most
//    FileReader::characterCodePointLimit code points.
//
// Input: byte 0 is the limit (0-255); byte 1 % 8 is the number of chunk-size bytes that follow
// (each 0-255, used in turn; 0 is an empty feed, skipped on the socket); the rest is the data.

#include "FileReader.h"
#include "FuzzCheck.h"
#include "Utf8Decoder.h"

#include <unicode/ubrk.h>
#include <unicode/ucnv.h>

#include <cerrno>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// Beyond this many packets the rest goes as one, so the writer never fills the socket.
constexpr std::size_t maxPackets = 64;

QString icuDecode(const QByteArray& bytes) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open("UTF-8", &status);
    FUZZ_CHECK(U_SUCCESS(status));
    std::vector<UChar> out(static_cast<std::size_t>(bytes.size()) * 2 + 2);
    const int32_t length =
        ucnv_toUChars(converter, out.data(), static_cast<int32_t>(out.size()), bytes.constData(),
                      static_cast<int32_t>(bytes.size()), &status);
    ucnv_close(converter);
    FUZZ_CHECK(U_SUCCESS(status));
    return QString(reinterpret_cast<const QChar*>(out.data()), length);
}

// Offsets of every character boundary after the start: ICU's extended grapheme cluster
// boundaries, and inside a longer cluster one after every characterCodePointLimit code points.
std::vector<qsizetype> characterEnds(const QString& text) {
    std::vector<qsizetype> ends;
    if (text.isEmpty()) {
        return ends;
    }
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* breaks =
        ubrk_open(UBRK_CHARACTER, "", reinterpret_cast<const UChar*>(text.utf16()),
                  static_cast<int32_t>(text.size()), &status);
    FUZZ_CHECK(U_SUCCESS(status));
    qsizetype start = 0;
    for (int32_t end = ubrk_next(breaks); end != UBRK_DONE; end = ubrk_next(breaks)) {
        qsizetype codePoints = 0;
        for (qsizetype at = start; at < end; ++at) {
            if (text.at(at).isLowSurrogate()) {
                continue;
            }
            if (codePoints == FileReader::characterCodePointLimit) {
                ends.push_back(at);
                codePoints = 0;
            }
            ++codePoints;
        }
        ends.push_back(end);
        start = end;
    }
    ubrk_close(breaks);
    return ends;
}

class Chunks {
public:
    Chunks(const uint8_t* sizes, std::size_t count) : m_sizes(sizes, sizes + count) {
        bool any = false;
        for (const uint8_t size : m_sizes) {
            any = any || size != 0;
        }
        if (!any) {
            m_sizes.assign(1, 1);
        }
    }
    std::size_t next() {
        const std::size_t size = m_sizes[m_at];
        m_at = (m_at + 1) % m_sizes.size();
        return size;
    }

private:
    std::vector<uint8_t> m_sizes;
    std::size_t m_at = 0;
};

void checkDecoder(const QByteArray& bytes, Chunks chunks, const QString& whole,
                  const Detail& detail) {
    Utf8Decoder decoder;
    QString text;
    qsizetype at = 0;
    while (at < bytes.size()) {
        const qsizetype size =
            std::min<qsizetype>(static_cast<qsizetype>(chunks.next()), bytes.size() - at);
        decoder.feed(bytes.constData() + at, static_cast<std::size_t>(size), text);
        at += size;
    }
    decoder.finish(text);
    FUZZ_CHECK(text == whole, detail() + QStringLiteral("\nchunked ") + fuzzQuote(text) +
                                  QStringLiteral("\nwhole   ") + fuzzQuote(whole));
}

void checkReader(const QByteArray& bytes, Chunks chunks, qsizetype limit, const QString& whole,
                 const Detail& detail) {
    int ends[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    qsizetype at = 0;
    std::size_t packets = 0;
    while (at < bytes.size()) {
        qsizetype size = static_cast<qsizetype>(chunks.next());
        if (size == 0) {
            continue; // an empty packet would read as the end
        }
        if (++packets == maxPackets) {
            size = bytes.size() - at;
        }
        size = std::min(size, bytes.size() - at);
        const ssize_t sent = ::send(ends[1], bytes.constData() + at, static_cast<size_t>(size), 0);
        FUZZ_CHECK(sent == size, QString::number(errno));
        at += size;
    }
    ::close(ends[1]);

    FileReader::Text got;
    const int error = FileReader::readText(ends[0], limit, got);
    ::close(ends[0]);
    FUZZ_CHECK(error == 0, detail());

    const std::vector<qsizetype> characters = characterEnds(whole);
    const bool truncated = static_cast<qsizetype>(characters.size()) > limit;
    const QString content =
        truncated ? whole.left(limit == 0 ? 0 : characters[static_cast<std::size_t>(limit - 1)])
                  : whole;
    const auto result = [&] {
        return QStringLiteral("\nlimit ") + QString::number(limit) + QStringLiteral("\nexpected ") +
               fuzzQuote(content) + QString::fromLatin1(truncated ? " (truncated)" : "") +
               QStringLiteral("\ngot      ") + fuzzQuote(got.content) +
               QString::fromLatin1(got.truncated ? " (truncated)" : "");
    };
    FUZZ_CHECK(got.truncated == truncated, detail() + result());
    FUZZ_CHECK(got.content == content, detail() + result());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const qsizetype limit = data[0];
    const std::size_t sizeCount = std::min<std::size_t>(data[1] % 8, size - 2);
    const Chunks chunks(data + 2, sizeCount);
    const std::size_t header = 2 + sizeCount;
    const QByteArray bytes(reinterpret_cast<const char*>(data + header),
                           static_cast<qsizetype>(size - header));
    const auto detail = [&] {
        return QStringLiteral("bytes ") + QString::fromLatin1(bytes.toHex(' '));
    };

    const QString whole = Utf8Decoder::decode(bytes);
    const QString icu = icuDecode(bytes);
    FUZZ_CHECK(whole == icu, detail() + QStringLiteral("\nours ") + fuzzQuote(whole) +
                                 QStringLiteral("\nICU  ") + fuzzQuote(icu));
    checkDecoder(bytes, chunks, whole, Detail(detail));
    checkReader(bytes, chunks, limit, whole, Detail(detail));
    return 0;
}
