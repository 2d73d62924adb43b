// The WebSocket client's frame layer (WebSocketFramer) on a server's byte stream.
//  - The events (messages, control frames, the close, the failure and its code) are those of a
//    reference parser written here: whole-buffer, one frame at a time, following RFC 6455 for
//    a client, with its own UTF-8 check (the range of code points a partial character can
//    still reach, not a table of bytes).
//  - They are the same whether the stream is fed at once, in the fuzzed pieces, or byte by
//    byte; fed byte by byte, each event comes with the byte that completes it, never before or
//    after: a failure at the first byte that makes it certain (for invalid text, the first byte
//    no valid text can go on from; for a broken header, its last byte).
//  - Nothing is read after a close or a failure.
//  - Memory stays bounded: while the framer reads, no allocation is larger than the message
//    ceiling (plus a little), whatever lengths the headers announce.
//
// Input: byte 0 % 16 is the number of cut points, each two bytes (big-endian, modulo the
// stream's length + 1) after byte 1; byte 1 picks the ceiling (below 128: 64 KiB; else
// (byte - 128) * 16 bytes); the rest is the stream.

#include "FuzzCheck.h"
#include "WebSocketFramer.h"

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <vector>

namespace {

using Event = WebSocketFramer::Event;
using Kind = WebSocketFramer::Event::Kind;

// An event and the index of the stream byte whose arrival completes it.
struct Seen {
    Kind kind;
    QByteArray payload;
    quint16 code;
    qsizetype at;
};

// UTF-8 judged byte by byte: after each byte, whether some valid text can still follow.
class ReferenceUtf8 {
public:
    bool byte(uchar b) {
        if (m_need == 0) {
            if (b < 0x80) {
                return true;
            }
            if ((b & 0xE0) == 0xC0) {
                m_length = 2;
                m_partial = b & 0x1F;
            } else if ((b & 0xF0) == 0xE0) {
                m_length = 3;
                m_partial = b & 0x0F;
            } else if ((b & 0xF8) == 0xF0) {
                m_length = 4;
                m_partial = b & 0x07;
            } else {
                return false;
            }
            m_need = m_length - 1;
        } else {
            if ((b & 0xC0) != 0x80) {
                return false;
            }
            m_partial = (m_partial << 6) | (b & 0x3F);
            --m_need;
        }
        // The code points the character can still become must include a valid one: at least
        // the smallest its length may encode, at most U+10FFFF, not only surrogates.
        static constexpr quint64 least[] = {0, 0, 0x80, 0x800, 0x10000};
        const int bits = 6 * m_need;
        const quint64 low = quint64(m_partial) << bits;
        const quint64 high = low | ((quint64(1) << bits) - 1);
        return high >= least[m_length] && low <= 0x10FFFF && !(low >= 0xD800 && high <= 0xDFFF);
    }
    bool complete() const { return m_need == 0; }

private:
    int m_need = 0;
    int m_length = 0;
    quint32 m_partial = 0;
};

bool validCode(quint16 code) {
    return code == 1000 || code == 1001 || code == 1002 || code == 1003 ||
           (code >= 1007 && code <= 1014) || (code >= 3000 && code <= 4999);
}

std::vector<Seen> reference(const QByteArray& stream, qsizetype ceiling) {
    std::vector<Seen> out;
    const auto* s = reinterpret_cast<const uchar*>(stream.constData());
    const qsizetype n = stream.size();
    const auto failure = [&](quint16 code, qsizetype at) {
        out.push_back({Kind::Failure, QByteArray(), code, at});
    };
    bool inMessage = false;
    bool text = false;
    QByteArray message;
    ReferenceUtf8 utf8;
    qsizetype pos = 0;
    while (n - pos >= 2) {
        const bool fin = s[pos] & 0x80;
        const int rsv = s[pos] & 0x70;
        const int opcode = s[pos] & 0x0F;
        const bool masked = s[pos + 1] & 0x80;
        const int length7 = s[pos + 1] & 0x7F;
        const qsizetype headerLength = 2 +
                                       (length7 == 126   ? 2
                                        : length7 == 127 ? 8
                                                         : 0) +
                                       (masked ? 4 : 0);
        if (n - pos < headerLength) {
            break;
        }
        const qsizetype headerEnd = pos + headerLength - 1;
        quint64 length = quint64(length7);
        if (length7 >= 126) {
            length = 0;
            for (qsizetype i = 0; i < (length7 == 126 ? 2 : 8); ++i) {
                length = (length << 8) | s[pos + 2 + i];
            }
        }
        const bool control = opcode >= 8;
        const bool known = opcode <= 2 || (opcode >= 8 && opcode <= 10);
        if (rsv != 0 || !known || masked || (length >> 63) != 0 ||
            (control && (!fin || length > 125)) || (opcode == 0 && !inMessage) ||
            ((opcode == 1 || opcode == 2) && inMessage)) {
            failure(1002, headerEnd);
            return out;
        }
        if (!control) {
            const quint64 sofar = opcode == 0 ? quint64(message.size()) : 0;
            if (sofar + length > quint64(ceiling)) {
                failure(1009, headerEnd);
                return out;
            }
            if (opcode != 0) {
                inMessage = true;
                text = opcode == 1;
                message.clear();
                utf8 = ReferenceUtf8();
            }
        }
        const qsizetype payloadStart = pos + headerLength;
        const qsizetype available = qsizetype(std::min<quint64>(length, quint64(n - payloadStart)));
        if (!control && text) {
            for (qsizetype i = 0; i < available; ++i) {
                if (!utf8.byte(s[payloadStart + i])) {
                    failure(1007, payloadStart + i);
                    return out;
                }
            }
        }
        if (quint64(available) < length) {
            break;
        }
        const QByteArray payload = stream.mid(payloadStart, available);
        const qsizetype end = length == 0 ? headerEnd : payloadStart + available - 1;
        pos = payloadStart + available;
        if (opcode == 9 || opcode == 10) {
            out.push_back({opcode == 9 ? Kind::Ping : Kind::Pong, payload, 0, end});
            continue;
        }
        if (opcode == 8) {
            if (payload.size() == 1) {
                failure(1002, end);
                return out;
            }
            quint16 code = 1005;
            if (payload.size() >= 2) {
                code = quint16((uchar(payload[0]) << 8) | uchar(payload[1]));
                if (!validCode(code)) {
                    failure(1002, end);
                    return out;
                }
                ReferenceUtf8 reason;
                for (qsizetype i = 2; i < payload.size(); ++i) {
                    if (!reason.byte(uchar(payload[i]))) {
                        failure(1007, end);
                        return out;
                    }
                }
                if (!reason.complete()) {
                    failure(1007, end);
                    return out;
                }
            }
            out.push_back({Kind::Close, payload.mid(2), code, end});
            return out;
        }
        message += payload;
        if (fin) {
            if (text && !utf8.complete()) {
                failure(1007, end);
                return out;
            }
            out.push_back({text ? Kind::Text : Kind::Binary, message, 0, end});
            inMessage = false;
            message.clear();
        }
    }
    return out;
}

const char* kindName(Kind kind) {
    switch (kind) {
    case Kind::Text:
        return "text";
    case Kind::Binary:
        return "binary";
    case Kind::Ping:
        return "ping";
    case Kind::Pong:
        return "pong";
    case Kind::Close:
        return "close";
    case Kind::Failure:
        return "failure";
    }
    return "?";
}

QString render(const std::vector<Seen>& events) {
    QString text;
    for (const Seen& event : events) {
        text += QStringLiteral("  %1 code %2 at %3: %4\n")
                    .arg(QString::fromLatin1(kindName(event.kind)))
                    .arg(event.code)
                    .arg(event.at)
                    .arg(QString::fromLatin1(event.payload.left(64).toHex()));
    }
    return text;
}

// The largest allocation while `measuring`; the sanitizer calls this for every one.
bool measuring = false;
size_t largest = 0;

void mallocHook(const volatile void*, size_t size) {
    if (measuring) {
        largest = std::max(largest, size);
    }
}

void freeHook(const volatile void*) {}

// Feeds `stream` in pieces ending at `cuts`; each event gets the index of the last byte fed.
std::vector<Seen> run(WebSocketFramer& framer, const QByteArray& stream,
                      const std::vector<qsizetype>& cuts, qsizetype reserve) {
    std::vector<Seen> out;
    QList<Event> events;
    // Room made before: only the framer's own allocations are measured.
    events.reserve(reserve);
    qsizetype from = 0;
    for (const qsizetype cut : cuts) {
        if (cut < from) {
            continue;
        }
        measuring = true;
        framer.feed(QByteArrayView(stream).sliced(from, cut - from), events);
        measuring = false;
        for (Event& event : events) {
            out.push_back(
                {event.kind, std::move(event.payload),
                 event.kind == Kind::Close || event.kind == Kind::Failure ? event.code : quint16(0),
                 cut - 1});
        }
        events.clear();
        from = cut;
    }
    return out;
}

bool sameEvents(const std::vector<Seen>& a, const std::vector<Seen>& b, bool withTimes) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].kind != b[i].kind || a[i].payload != b[i].payload || a[i].code != b[i].code ||
            (withTimes && a[i].at != b[i].at)) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __sanitizer_install_malloc_and_free_hooks(mallocHook, freeHook);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const qsizetype ceiling = data[1] < 128 ? 64 * 1024 : qsizetype(data[1] - 128) * 16;
    const std::size_t cutCount = std::min<std::size_t>(data[0] % 16, (size - 2) / 2);
    const std::size_t header = 2 + 2 * cutCount;
    const QByteArray stream(reinterpret_cast<const char*>(data + header),
                            static_cast<qsizetype>(size - header));
    const qsizetype n = stream.size();

    std::vector<qsizetype> cuts;
    for (std::size_t i = 0; i < cutCount; ++i) {
        cuts.push_back(((data[2 + 2 * i] << 8) | data[3 + 2 * i]) % (n + 1));
    }
    cuts.push_back(n);
    std::sort(cuts.begin(), cuts.end());
    std::vector<qsizetype> everyByte;
    for (qsizetype i = 1; i <= n; ++i) {
        everyByte.push_back(i);
    }

    const std::vector<Seen> expected = reference(stream, ceiling);
    const bool ends = !expected.empty() && (expected.back().kind == Kind::Failure ||
                                            expected.back().kind == Kind::Close);
    const auto detail = [&](const char* how, const std::vector<Seen>& got) {
        return QStringLiteral("ceiling %1, stream %2\nexpected\n")
                   .arg(ceiling)
                   .arg(QString::fromLatin1(stream.left(256).toHex(' '))) +
               render(expected) + QString::fromLatin1(how) + u'\n' + render(got);
    };
    // One event at most per two bytes, and the failure.
    const qsizetype reserve = n / 2 + 2;

    largest = 0;
    WebSocketFramer whole(ceiling);
    const std::vector<Seen> all = run(whole, stream, {n}, reserve);
    FUZZ_CHECK(sameEvents(all, expected, false), detail("fed at once", all));
    FUZZ_CHECK(whole.failed() == ends, detail("fed at once", all));
    // A message buffer of at most the ceiling, a control frame's 125 bytes, a short text.
    const size_t bound = size_t(std::max<qsizetype>(ceiling, 256)) + 64;
    FUZZ_CHECK(largest <= bound,
               QStringLiteral("an allocation of %1 bytes, ceiling %2").arg(largest).arg(ceiling));

    WebSocketFramer pieces(ceiling);
    const std::vector<Seen> cut = run(pieces, stream, cuts, reserve);
    FUZZ_CHECK(sameEvents(cut, expected, false), detail("fed in pieces", cut));

    WebSocketFramer bytes(ceiling);
    const std::vector<Seen> single = run(bytes, stream, everyByte, reserve);
    FUZZ_CHECK(sameEvents(single, expected, true), detail("fed byte by byte", single));

    // After a close or a failure, nothing more comes out, whatever follows.
    if (ends) {
        QList<Event> more;
        bytes.feed(QByteArrayLiteral("\x81\x01x\x89\x00\x88\x00"), more);
        FUZZ_CHECK(more.isEmpty(), detail("after the end", single));
    }
    return 0;
}
