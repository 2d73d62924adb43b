// The frame layer of the companion's WebSocket client, without sockets: every way a server may
// split a message, every rule a client enforces on a server's frames, the moment a broken
// message is known to be broken, and the frames the client builds. References written here
// (a frame builder, an unmasking decoder, a code-point UTF-8 decoder) are independent of the
// code under test.

#include "Utf8Validator.h"
#include "WebSocketFramer.h"

#include <QRandomGenerator>
#include <QStringDecoder>
#include <QTest>
#include <QtEndian>

#include <functional>

using Framer = WebSocketFramer;
using Event = WebSocketFramer::Event;
using Kind = WebSocketFramer::Event::Kind;

namespace {

constexpr qsizetype bigCeiling = qsizetype(64) * 1024 * 1024;

constexpr quint8 opContinuation = 0x0;
constexpr quint8 opText = 0x1;
constexpr quint8 opBinary = 0x2;
constexpr quint8 opClose = 0x8;
constexpr quint8 opPing = 0x9;
constexpr quint8 opPong = 0xA;

// The header of a frame as a server sends it. `lengthBytes` forces the 16-bit (2) or 64-bit
// (8) length form; -1 picks the shortest. A masked header gets a key after the length.
QByteArray header(quint8 opcode, quint64 length, bool fin = true, quint8 rsv = 0,
                  int lengthBytes = -1, bool masked = false) {
    if (lengthBytes < 0) {
        lengthBytes = length < 126 ? 0 : length <= 0xFFFF ? 2 : 8;
    }
    QByteArray out;
    out.append(char((fin ? 0x80 : 0) | (rsv << 4) | opcode));
    const quint8 maskBit = masked ? 0x80 : 0;
    if (lengthBytes == 0) {
        out.append(char(maskBit | length));
    } else if (lengthBytes == 2) {
        out.append(char(maskBit | 126));
        out.append(char(length >> 8));
        out.append(char(length & 0xFF));
    } else {
        out.append(char(maskBit | 127));
        for (int shift = 56; shift >= 0; shift -= 8) {
            out.append(char((length >> shift) & 0xFF));
        }
    }
    if (masked) {
        out.append("\x12\x34\x56\x78", 4);
    }
    return out;
}

QByteArray frame(quint8 opcode, QByteArrayView payload, bool fin = true, quint8 rsv = 0,
                 int lengthBytes = -1) {
    return header(opcode, quint64(payload.size()), fin, rsv, lengthBytes) + payload.toByteArray();
}

QByteArray closeFrame(quint16 code, QByteArrayView reason = {}) {
    QByteArray payload;
    payload.append(char(code >> 8));
    payload.append(char(code & 0xFF));
    payload.append(reason.toByteArray());
    return frame(opClose, payload);
}

// One line per event, for readable comparisons.
QStringList render(const QList<Event>& events) {
    QStringList lines;
    for (const Event& event : events) {
        switch (event.kind) {
        case Kind::Text:
            lines.append(QStringLiteral("text ") + QString::fromLatin1(event.payload.toHex()));
            break;
        case Kind::Binary:
            lines.append(QStringLiteral("binary ") + QString::fromLatin1(event.payload.toHex()));
            break;
        case Kind::Ping:
            lines.append(QStringLiteral("ping ") + QString::fromLatin1(event.payload.toHex()));
            break;
        case Kind::Pong:
            lines.append(QStringLiteral("pong ") + QString::fromLatin1(event.payload.toHex()));
            break;
        case Kind::Close:
            lines.append(QStringLiteral("close %1 ").arg(event.code) +
                         QString::fromLatin1(event.payload.toHex()));
            break;
        case Kind::Failure:
            lines.append(QStringLiteral("failure %1").arg(event.code));
            break;
        }
    }
    return lines;
}

QString textEvent(QByteArrayView utf8) {
    return QStringLiteral("text ") + QString::fromLatin1(utf8.toByteArray().toHex());
}

QString failure(int code) {
    return QStringLiteral("failure %1").arg(code);
}

QStringList feedWhole(QByteArrayView bytes, qsizetype largest = bigCeiling) {
    Framer framer(largest);
    QList<Event> events;
    framer.feed(bytes, events);
    return render(events);
}

QStringList feedBytewise(QByteArrayView bytes, qsizetype largest = bigCeiling) {
    Framer framer(largest);
    QList<Event> events;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        framer.feed(bytes.sliced(i, 1), events);
    }
    return render(events);
}

// The byte whose arrival produced the first event, or -1 when none came.
qsizetype firstEventAt(QByteArrayView bytes, qsizetype largest = bigCeiling) {
    Framer framer(largest);
    QList<Event> events;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        framer.feed(bytes.sliced(i, 1), events);
        if (!events.isEmpty()) {
            return i;
        }
    }
    return -1;
}

// Decodes code points, then rejects what Unicode forbids: another method than the validator's
// table of byte ranges.
bool referenceValid(QByteArrayView bytes) {
    const auto* b = reinterpret_cast<const uchar*>(bytes.data());
    const qsizetype n = bytes.size();
    qsizetype i = 0;
    while (i < n) {
        const uchar lead = b[i];
        int length = 0;
        char32_t point = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2;
            point = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            point = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            point = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > n) {
            return false;
        }
        for (int k = 1; k < length; ++k) {
            if ((b[i + k] & 0xC0) != 0x80) {
                return false;
            }
            point = (point << 6) | (b[i + k] & 0x3F);
        }
        static constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < least[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

// Whether some bytes could follow `prefix` to make it valid. Every allowed range of a
// continuation byte holds one of 0x80, 0x90 and 0xA0, so trying those is enough.
bool referenceExtendable(const QByteArray& prefix) {
    if (referenceValid(prefix)) {
        return true;
    }
    static const char tails[] = {'\x80', '\x90', '\xA0'};
    const std::function<bool(const QByteArray&, int)> tryMore = [&](const QByteArray& bytes,
                                                                    int room) {
        if (referenceValid(bytes)) {
            return true;
        }
        if (room == 0) {
            return false;
        }
        for (const char tail : tails) {
            if (tryMore(bytes + tail, room - 1)) {
                return true;
            }
        }
        return false;
    };
    return tryMore(prefix, 3);
}

// Qt's decoder flags what it cannot read and replaces it; only valid UTF-8 comes back
// unchanged. An initial byte order mark is kept, as it is valid text.
bool qtValid(const QByteArray& bytes) {
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::ConvertInitialBom);
    const QString text = decoder.decode(bytes);
    return !decoder.hasError() && text.toUtf8() == bytes;
}

QByteArray utf8(char32_t point) {
    return QString::fromUcs4(&point, 1).toUtf8();
}

// Text of characters of every encoded length, and the boundaries of each length.
QByteArray mixedText() {
    QByteArray text;
    for (const char32_t point : {U'a', U'\u00e9', U'\u20ac', U'\U0001F600', U'z', U'\u0080',
                                 U'\u07FF', U'\u0800', U'\uFFFD', U'\U00010000', U'\U0010FFFF'}) {
        text += utf8(point);
    }
    return text;
}

// A client frame decoded the plain way, byte by byte, for checking what encode() builds.
struct ClientFrame {
    bool ok = false;
    bool fin = false;
    quint8 rsv = 0;
    quint8 opcode = 0;
    bool masked = false;
    bool shortestLength = false;
    QByteArray key;
    QByteArray payload;
};

ClientFrame decodeClientFrame(const QByteArray& wire) {
    ClientFrame out;
    if (wire.size() < 2) {
        return out;
    }
    const auto byte = [&](qsizetype i) { return quint64(uchar(wire.at(i))); };
    out.fin = byte(0) & 0x80;
    out.rsv = (byte(0) >> 4) & 0x7;
    out.opcode = byte(0) & 0xF;
    out.masked = byte(1) & 0x80;
    quint64 length = byte(1) & 0x7F;
    qsizetype at = 2;
    if (length == 126) {
        length = (byte(2) << 8) | byte(3);
        out.shortestLength = length >= 126;
        at = 4;
    } else if (length == 127) {
        length = 0;
        for (int i = 0; i < 8; ++i) {
            length = (length << 8) | byte(2 + i);
        }
        out.shortestLength = length > 0xFFFF;
        at = 10;
    } else {
        out.shortestLength = true;
    }
    if (out.masked) {
        out.key = wire.mid(at, 4);
        at += 4;
    }
    if (quint64(wire.size() - at) != length) {
        return out;
    }
    out.payload = wire.mid(at);
    for (qsizetype i = 0; out.masked && i < out.payload.size(); ++i) {
        out.payload[i] = char(out.payload[i] ^ out.key[i % 4]);
    }
    out.ok = true;
    return out;
}

} // namespace

class WebSocketFramerTest : public QObject {
    Q_OBJECT

private slots:
    // Every cut of a message into three frames (empty ones included), fed at once and byte by
    // byte, gives the message once, whole: cuts fall inside 2-, 3- and 4-byte characters.
    void everySplitGivesOneMessage() {
        const QByteArray text = mixedText();
        const QStringList expected{textEvent(text)};
        for (qsizetype p = 0; p <= text.size(); ++p) {
            for (qsizetype q = p; q <= text.size(); ++q) {
                const QByteArray wire = frame(opText, text.first(p), false) +
                                        frame(opContinuation, text.sliced(p, q - p), false) +
                                        frame(opContinuation, text.sliced(q), true);
                QCOMPARE(feedWhole(wire), expected);
                QCOMPARE(feedBytewise(wire), expected);
            }
        }
    }

    void oneFramePerByte() {
        const QByteArray text = mixedText();
        QByteArray wire = frame(opText, text.first(1), false);
        for (qsizetype i = 1; i < text.size(); ++i) {
            wire += frame(opContinuation, text.sliced(i, 1), i + 1 == text.size());
        }
        QCOMPARE(feedWhole(wire), QStringList{textEvent(text)});
        QCOMPARE(feedBytewise(wire), QStringList{textEvent(text)});
    }

    // Long messages cut into frames at random, with control frames between the frames, fed in
    // random pieces: the same events as the frames say, in order.
    void randomSplitsWithControlFrames() {
        QRandomGenerator random(20240611);
        const char32_t alphabet[] = {U'x',          U'\u00e9',     U'\u0800', U'\u20ac',
                                     U'\U0001F600', U'\U0010FFFF', U' '};
        for (int round = 0; round < 200; ++round) {
            QByteArray text;
            const int characters = random.bounded(1, 3000);
            for (int i = 0; i < characters; ++i) {
                text += utf8(alphabet[random.bounded(int(std::size(alphabet)))]);
            }
            QByteArray wire;
            QStringList expected;
            qsizetype at = 0;
            bool first = true;
            do {
                const qsizetype piece =
                    std::min<qsizetype>(text.size() - at, random.bounded(0, 700));
                const bool last = at + piece == text.size();
                wire += frame(first ? opText : opContinuation, text.sliced(at, piece), last);
                at += piece;
                first = false;
                if (!last && random.bounded(3) == 0) {
                    const QByteArray body =
                        QByteArray::number(round) + '-' + QByteArray::number(at);
                    const bool ping = random.bounded(2) == 0;
                    wire += frame(ping ? opPing : opPong, body);
                    expected.append((ping ? QStringLiteral("ping ") : QStringLiteral("pong ")) +
                                    QString::fromLatin1(body.toHex()));
                }
            } while (at < text.size());
            expected.append(textEvent(text));

            Framer framer(bigCeiling);
            QList<Event> events;
            qsizetype fed = 0;
            while (fed < wire.size()) {
                const qsizetype piece =
                    std::min<qsizetype>(wire.size() - fed, random.bounded(1, 300));
                framer.feed(QByteArrayView(wire).sliced(fed, piece), events);
                fed += piece;
            }
            QCOMPARE(render(events), expected);
        }
    }

    void controlFramesBetweenFragments() {
        const QByteArray wire = frame(opText, "he", false) + frame(opPing, "p") +
                                frame(opContinuation, "l", false) + frame(opPong, "q") +
                                frame(opPing, "") + frame(opContinuation, "lo", true);
        const QStringList expected{QStringLiteral("ping 70"), QStringLiteral("pong 71"),
                                   QStringLiteral("ping "), textEvent("hello")};
        QCOMPARE(feedWhole(wire), expected);
        QCOMPARE(feedBytewise(wire), expected);
    }

    // A close between fragments ends everything: the unfinished message is never delivered.
    void closeBetweenFragments() {
        const QByteArray wire =
            frame(opText, "he", false) + closeFrame(1000) + frame(opContinuation, "llo", true);
        QCOMPARE(feedWhole(wire), QStringList{QStringLiteral("close 1000 ")});
    }

    void lengthForms_data() {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("lengthBytes");
        QTest::newRow("empty, 7-bit") << 0 << 0;
        QTest::newRow("1, 7-bit") << 1 << 0;
        QTest::newRow("125, 7-bit") << 125 << 0;
        QTest::newRow("126, 16-bit") << 126 << 2;
        QTest::newRow("65535, 16-bit") << 65535 << 2;
        QTest::newRow("65536, 64-bit") << 65536 << 8;
        QTest::newRow("200000, 64-bit") << 200000 << 8;
        // Longer forms than needed: not the shortest, still one clear length.
        QTest::newRow("5 in the 16-bit form") << 5 << 2;
        QTest::newRow("5 in the 64-bit form") << 5 << 8;
        QTest::newRow("300 in the 64-bit form") << 300 << 8;
    }

    void lengthForms() {
        QFETCH(int, size);
        QFETCH(int, lengthBytes);
        QByteArray payload(size, Qt::Uninitialized);
        for (int i = 0; i < size; ++i) {
            payload[i] = char('a' + i % 26);
        }
        const QByteArray text = frame(opText, payload, true, 0, lengthBytes);
        const QByteArray binary = frame(opBinary, payload, true, 0, lengthBytes);
        QCOMPARE(feedWhole(text + binary),
                 (QStringList{textEvent(payload),
                              QStringLiteral("binary ") + QString::fromLatin1(payload.toHex())}));
        if (size <= 65536) {
            QCOMPARE(feedBytewise(text), QStringList{textEvent(payload)});
        }
    }

    // The client must refuse a masked frame; it knows as soon as the header is in.
    void maskedServerFrame_data() {
        QTest::addColumn<QByteArray>("head");
        QTest::newRow("text") << header(opText, 3, true, 0, -1, true);
        QTest::newRow("text, 16-bit length") << header(opText, 300, true, 0, -1, true);
        QTest::newRow("ping") << header(opPing, 1, true, 0, -1, true);
        QTest::newRow("close") << header(opClose, 2, true, 0, -1, true);
    }

    void maskedServerFrame() {
        QFETCH(QByteArray, head);
        QCOMPARE(firstEventAt(head), head.size() - 1);
        QCOMPARE(feedWhole(head + QByteArray(400, 'x')), QStringList{failure(1002)});
    }

    void protocolErrors_data() {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QStringList>("eventsBefore");
        const QByteArray open = frame(opText, "ab", false);
        const QByteArray openBinary = frame(opBinary, "ab", false);
        for (const quint8 rsv : {1, 2, 4, 7}) {
            QTest::addRow("reserved bits %d on text", rsv)
                << QByteArray() << header(opText, 1, true, rsv) << QStringList();
            QTest::addRow("reserved bits %d on ping", rsv)
                << QByteArray() << header(opPing, 1, true, rsv) << QStringList();
            QTest::addRow("reserved bits %d on a continuation", rsv)
                << open << header(opContinuation, 1, true, rsv) << QStringList();
        }
        for (const quint8 opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15}) {
            QTest::addRow("opcode %d", opcode)
                << QByteArray() << header(opcode, 0) << QStringList();
            QTest::addRow("opcode %d inside a message", opcode)
                << open << header(opcode, 0) << QStringList();
        }
        QTest::newRow("final continuation without a message")
            << QByteArray() << header(opContinuation, 1) << QStringList();
        QTest::newRow("continuation without a message")
            << QByteArray() << header(opContinuation, 1, false) << QStringList();
        QTest::newRow("continuation after a whole message")
            << frame(opText, "ab") << header(opContinuation, 1) << QStringList{textEvent("ab")};
        QTest::newRow("text inside text") << open << header(opText, 1) << QStringList();
        QTest::newRow("binary inside text") << open << header(opBinary, 1) << QStringList();
        QTest::newRow("text inside binary") << openBinary << header(opText, 1) << QStringList();
        QTest::newRow("fragmented ping")
            << QByteArray() << header(opPing, 1, false) << QStringList();
        QTest::newRow("fragmented pong")
            << QByteArray() << header(opPong, 1, false) << QStringList();
        QTest::newRow("fragmented close")
            << QByteArray() << header(opClose, 2, false) << QStringList();
        QTest::newRow("ping of 126 bytes") << QByteArray() << header(opPing, 126) << QStringList();
        QTest::newRow("pong of 65535 bytes")
            << QByteArray() << header(opPong, 65535) << QStringList();
        QTest::newRow("close of 126 bytes")
            << QByteArray() << header(opClose, 126) << QStringList();
        QTest::newRow("ping of 126 bytes between fragments")
            << open << header(opPing, 126) << QStringList();
        QTest::newRow("length with the top bit set")
            << QByteArray() << header(opBinary, quint64(1) << 63) << QStringList();
        QTest::newRow("largest 64-bit length")
            << QByteArray() << header(opBinary, ~quint64(0)) << QStringList();
    }

    // Each broken rule fails with 1002 as soon as the header is in; nothing is read after.
    void protocolErrors() {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, head);
        QFETCH(QStringList, eventsBefore);
        const QByteArray wire = before + head;
        QCOMPARE(firstEventAt(wire), eventsBefore.isEmpty() ? wire.size() - 1 : before.size() - 1);
        QCOMPARE(feedWhole(wire), eventsBefore + QStringList{failure(1002)});

        Framer framer(bigCeiling);
        QList<Event> events;
        framer.feed(wire + QByteArray(200, 'x') + frame(opText, "after"), events);
        QCOMPARE(render(events), eventsBefore + QStringList{failure(1002)});
        QVERIFY(framer.failed());
        events.clear();
        framer.feed(frame(opText, "later"), events);
        QVERIFY(events.isEmpty());
    }

    void invalidText_data() {
        QTest::addColumn<QByteArray>("bad");
        // The byte of `bad` whose arrival proves the text invalid; -1: only the message's end.
        QTest::addColumn<int>("certainAt");
        QTest::newRow("overlong 2-byte C0") << QByteArray("\xC0\x80") << 0;
        QTest::newRow("overlong 2-byte C1") << QByteArray("\xC1\xBF") << 0;
        QTest::newRow("overlong 3-byte") << QByteArray("\xE0\x80\x80") << 1;
        QTest::newRow("overlong 3-byte, highest") << QByteArray("\xE0\x9F\xBF") << 1;
        QTest::newRow("overlong 4-byte") << QByteArray("\xF0\x8F\xBF\xBF") << 1;
        QTest::newRow("surrogate D800") << QByteArray("\xED\xA0\x80") << 1;
        QTest::newRow("surrogate DFFF") << QByteArray("\xED\xBF\xBF") << 1;
        QTest::newRow("U+110000") << QByteArray("\xF4\x90\x80\x80") << 1;
        QTest::newRow("F5 lead") << QByteArray("\xF5\x80\x80\x80") << 0;
        QTest::newRow("F8 lead") << QByteArray("\xF8\x88\x80\x80\x80") << 0;
        QTest::newRow("FE") << QByteArray("\xFE") << 0;
        QTest::newRow("FF") << QByteArray("\xFF") << 0;
        QTest::newRow("lone continuation") << QByteArray("\x80") << 0;
        QTest::newRow("continuation after a whole character") << QByteArray("\xC3\xA9\xA9") << 2;
        QTest::newRow("3-byte lead, then ASCII") << QByteArray("\xE2\x82"
                                                               "A")
                                                 << 2;
        QTest::newRow("4-byte lead, then a new lead") << QByteArray("\xF0\x9F\x98\xF0") << 3;
        QTest::newRow("cut 2-byte at the end") << QByteArray("\xC3") << -1;
        QTest::newRow("cut 3-byte at the end") << QByteArray("\xE2\x82") << -1;
        QTest::newRow("cut 4-byte at the end") << QByteArray("\xF0\x9F\x98") << -1;
    }

    // Invalid text fails with 1007 at the first byte that proves it, in one frame or with the
    // frames cut right before and inside the bad bytes; a cut character only at the end.
    void invalidText() {
        QFETCH(QByteArray, bad);
        QFETCH(int, certainAt);
        const QByteArray good = "ok \xC3\xA9 ";
        const QByteArray rest = certainAt >= 0 ? QByteArray(" and more") : QByteArray();
        const QByteArray text = good + bad + rest;
        QVERIFY(!referenceValid(text));

        const QByteArray single = frame(opText, text);
        const qsizetype head = single.size() - text.size();
        const qsizetype expectedAt =
            certainAt >= 0 ? head + good.size() + certainAt : single.size() - 1;
        QCOMPARE(firstEventAt(single), expectedAt);
        QCOMPARE(feedWhole(single), QStringList{failure(1007)});

        for (const qsizetype cut : {good.size(), good.size() + 1}) {
            const QByteArray first = frame(opText, text.first(cut), false);
            const QByteArray ping = frame(opPing, "p");
            const QByteArray second = frame(opContinuation, text.sliced(cut), true);
            const QByteArray wire = first + ping + second;
            const bool inFirst = certainAt >= 0 && good.size() + certainAt < cut;
            const QStringList expected =
                inFirst ? QStringList{failure(1007)}
                        : QStringList{QStringLiteral("ping 70"), failure(1007)};
            QCOMPARE(feedBytewise(wire), expected);
            QCOMPARE(feedWhole(wire), expected);
        }
        // Cut at the end of a frame that is not the last: only the last one's end decides.
        if (certainAt < 0) {
            const QByteArray open = frame(opText, text, false);
            QCOMPARE(feedWhole(open), QStringList());
            QCOMPARE(feedWhole(open + frame(opPing, "")), QStringList{QStringLiteral("ping ")});
            const QByteArray closing = open + frame(opContinuation, "", true);
            QCOMPARE(firstEventAt(closing), closing.size() - 1);
            QCOMPARE(feedWhole(closing), QStringList{failure(1007)});
            // The missing bytes in the next frame make it whole.
            QByteArray completion = "\xA9";
            if (bad.size() == 2) {
                completion = "\xAC";
            } else if (bad.size() == 3) {
                completion = "\x80";
            }
            QVERIFY(referenceValid(text + completion));
            QCOMPARE(feedWhole(open + frame(opContinuation, completion, true)),
                     QStringList{textEvent(text + completion)});
        }
    }

    // Binary is not text: any bytes pass.
    void binaryIsNotJudged() {
        const QByteArray bytes("\xFF\xC0\x80\xED\xA0\x80", 6);
        QCOMPARE(feedWhole(frame(opBinary, bytes.first(2), false) +
                           frame(opContinuation, bytes.sliced(2), true)),
                 QStringList{QStringLiteral("binary ") + QString::fromLatin1(bytes.toHex())});
    }

    void ceiling_data() {
        QTest::addColumn<QList<int>>("frames");
        QTest::addColumn<bool>("fits");
        QTest::newRow("exactly, one frame") << QList<int>{1000} << true;
        QTest::newRow("exactly, three frames") << QList<int>{400, 0, 600} << true;
        QTest::newRow("one more, one frame") << QList<int>{1001} << false;
        QTest::newRow("one more, in the last frame") << QList<int>{400, 601} << false;
        QTest::newRow("one more, in an empty-then-full message") << QList<int>{0, 1000, 1} << false;
    }

    // A message of exactly the ceiling passes; one byte more fails with 1009 as soon as the
    // header that crosses it is in, before any of its payload.
    void ceiling() {
        QFETCH(QList<int>, frames);
        QFETCH(bool, fits);
        constexpr qsizetype largest = 1000;
        QByteArray message;
        QByteArray wire;
        qsizetype lastHeaderEnd = 0;
        for (qsizetype i = 0; i < frames.size(); ++i) {
            const QByteArray part(frames[i], char('a' + i));
            const bool last = i + 1 == frames.size();
            wire += header(i == 0 ? opText : opContinuation, quint64(part.size()), last);
            lastHeaderEnd = wire.size();
            wire += part;
            message += part;
            if (!last) {
                // Control frames do not count.
                wire += frame(opPing, QByteArray(125, 'p'));
            }
        }
        const QStringList all = feedWhole(wire, largest);
        QCOMPARE(all.back(), fits ? textEvent(message) : failure(1009));
        if (!fits) {
            QVERIFY(!feedWhole(wire.first(lastHeaderEnd - 1), largest).contains(failure(1009)));
            QCOMPARE(feedWhole(wire.first(lastHeaderEnd), largest).back(), failure(1009));
        }
    }

    // With the companion's own ceiling, 64 MiB: the header of a longer message is enough to
    // refuse it, and exactly 64 MiB is taken.
    void realCeiling() {
        QCOMPARE(feedWhole(header(opBinary, quint64(bigCeiling) + 1)), QStringList{failure(1009)});
        QCOMPARE(feedWhole(header(opText, quint64(bigCeiling) - 10, false) +
                           QByteArray(bigCeiling - 10, 'x') + header(opContinuation, 11)),
                 QStringList{failure(1009)});
        QCOMPARE(feedWhole(header(opText, (quint64(1) << 63) - 1)), QStringList{failure(1009)});

        Framer framer(bigCeiling);
        QList<Event> events;
        framer.feed(header(opText, quint64(bigCeiling)), events);
        QVERIFY(events.isEmpty());
        const QByteArray chunk(1024 * 1024, 'y');
        for (int i = 0; i < 64; ++i) {
            framer.feed(chunk, events);
        }
        QCOMPARE(events.size(), 1);
        QCOMPARE(events.front().kind, Kind::Text);
        QCOMPARE(events.front().payload.size(), bigCeiling);
        QCOMPARE(events.front().payload.count('y'), bigCeiling);
    }

    void closeFrames_data() {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<QString>("expected");
        QTest::newRow("empty") << QByteArray() << QStringLiteral("close 1005 ");
        QTest::newRow("one byte") << QByteArray("\x03", 1) << failure(1002);
        QTest::newRow("code only") << QByteArray("\x03\xE8", 2) << QStringLiteral("close 1000 ");
        QTest::newRow("code and reason") << QByteArray("\x0F\xA0"
                                                       "bye \xC3\xA9")
                                         << QStringLiteral("close 4000 62796520c3a9");
        QTest::newRow("reason of 123 bytes")
            << QByteArray("\x03\xE9") + QByteArray(123, 'r')
            << QStringLiteral("close 1001 ") + QString::fromLatin1(QByteArray(123, 'r').toHex());
        QTest::newRow("reason cut in a character") << QByteArray("\x03\xE8"
                                                                 "bye \xC3")
                                                   << failure(1007);
        QTest::newRow("reason with a surrogate")
            << QByteArray("\x03\xE8\xED\xA0\x80") << failure(1007);
        QTest::newRow("reason with an overlong form")
            << QByteArray("\x03\xE8\xC0\xAF") << failure(1007);
    }

    void closeFrames() {
        QFETCH(QByteArray, payload);
        QFETCH(QString, expected);
        const QByteArray wire = frame(opClose, payload);
        QCOMPARE(feedWhole(wire), QStringList{expected});
        QCOMPARE(feedBytewise(wire), QStringList{expected});
    }

    void closeCodes_data() {
        QTest::addColumn<int>("code");
        QTest::addColumn<bool>("valid");
        for (const int code :
             {0, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 65535}) {
            QTest::addRow("%d", code) << code << false;
        }
        for (const int code : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 1012, 1013,
                               1014, 3000, 3999, 4000, 4999}) {
            QTest::addRow("%d", code) << code << true;
        }
    }

    void closeCodes() {
        QFETCH(int, code);
        QFETCH(bool, valid);
        QCOMPARE(Framer::validCloseCode(quint16(code)), valid);
        QCOMPARE(feedWhole(closeFrame(quint16(code), "why")),
                 QStringList{valid ? QStringLiteral("close %1 776879").arg(code) : failure(1002)});
    }

    // A close frame is the last thing read: frames after it, in the same read or later, are not.
    void nothingAfterClose() {
        Framer framer(bigCeiling);
        QList<Event> events;
        framer.feed(frame(opPing, "a") + closeFrame(1000, "done") + frame(opText, "after") +
                        QByteArray("\xFF\xFF\xFF"),
                    events);
        QCOMPARE(render(events),
                 (QStringList{QStringLiteral("ping 61"), QStringLiteral("close 1000 646f6e65")}));
        QVERIFY(framer.failed());
        events.clear();
        framer.feed(frame(opText, "later"), events);
        framer.feed(frame(opPing, ""), events);
        QVERIFY(events.isEmpty());
    }

    void encodeRoundTrip_data() {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("opcode");
        QTest::addColumn<quint32>("mask");
        for (const int size : {0, 1, 3, 7, 8, 9, 125, 126, 127, 65535, 65536, 100003}) {
            QTest::addRow("text %d, zero mask", size) << size << int(opText) << quint32(0);
            QTest::addRow("binary %d, all ones", size)
                << size << int(opBinary) << quint32(0xFFFFFFFF);
            QTest::addRow("text %d, 0x01020304", size)
                << size << int(opText) << quint32(0x01020304);
        }
        QTest::newRow("close") << 20 << int(opClose) << quint32(0xDEADBEEF);
        QTest::newRow("ping") << 125 << int(opPing) << quint32(0x80000001);
        QTest::newRow("pong") << 0 << int(opPong) << quint32(0x7F7F7F7F);
    }

    // What the client sends: final, unreserved, masked with the given key in network order,
    // the shortest length form, and the payload back once unmasked.
    void encodeRoundTrip() {
        QFETCH(int, size);
        QFETCH(int, opcode);
        QFETCH(quint32, mask);
        QByteArray payload(size, Qt::Uninitialized);
        QRandomGenerator random(quint32(size) * 31 + mask);
        for (int i = 0; i < size; ++i) {
            payload[i] = char(random.bounded(256));
        }
        const QByteArray wire = Framer::encode(Framer::Opcode(opcode), payload, mask);
        const ClientFrame decoded = decodeClientFrame(wire);
        QVERIFY(decoded.ok);
        QVERIFY(decoded.fin);
        QCOMPARE(decoded.rsv, quint8(0));
        QCOMPARE(decoded.opcode, quint8(opcode));
        QVERIFY(decoded.masked);
        QVERIFY(decoded.shortestLength);
        QByteArray key;
        for (const int shift : {24, 16, 8, 0}) {
            key.append(char((mask >> shift) & 0xFF));
        }
        QCOMPARE(decoded.key.toHex(), key.toHex());
        QCOMPARE(decoded.payload, payload);
        if (mask == 0xFFFFFFFF && size > 0) {
            QCOMPARE(uchar(wire.back()), uchar(~uchar(payload.back())));
        }
    }

    // The close payload: the code in network order, and a reason cut to fit 125 bytes, never
    // inside a character. What it builds, the framer reads back.
    void closePayloads_data() {
        QTest::addColumn<QByteArray>("reason");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("short") << QByteArray("bye");
        QTest::newRow("exactly 123") << QByteArray(123, 'a');
        QTest::newRow("124, cut") << QByteArray(124, 'a');
        QTest::newRow("2-byte characters over the limit") << utf8(U'\u00e9').repeated(100);
        QTest::newRow("3-byte characters over the limit") << utf8(U'\u20ac').repeated(60);
        QTest::newRow("4-byte characters over the limit") << utf8(U'\U0001F600').repeated(40);
        QTest::newRow("4-byte after 121 ASCII") << QByteArray(121, 'a') + utf8(U'\U0001F600');
    }

    void closePayloads() {
        QFETCH(QByteArray, reason);
        const QByteArray payload = Framer::closePayload(4321, reason);
        QCOMPARE(uchar(payload[0]), uchar(4321 >> 8));
        QCOMPARE(uchar(payload[1]), uchar(4321 & 0xFF));
        const QByteArray kept = payload.sliced(2);
        QVERIFY(payload.size() <= 125);
        QVERIFY(reason.startsWith(kept));
        QVERIFY(referenceValid(kept));
        // As much as fits: the next character would not.
        if (kept.size() < reason.size()) {
            QByteArray next = reason.sliced(kept.size(), 1);
            for (qsizetype i = kept.size() + 1;
                 i < reason.size() && (uchar(reason[i]) & 0xC0) == 0x80; ++i) {
                next += reason[i];
            }
            QVERIFY(kept.size() + next.size() > 123);
        }
        QCOMPARE(feedWhole(frame(opClose, payload)),
                 QStringList{QStringLiteral("close 4321 ") + QString::fromLatin1(kept.toHex())});
    }

    // The two references agree with each other first, then the validator agrees with them on
    // random bytes, fed in random pieces: valid() after every piece says whether the bytes so
    // far can still begin valid UTF-8, complete() at the end whether they are.
    void validatorAgreesWithReferences() {
        QRandomGenerator random(7);
        const QList<QByteArray> nasty{"\xC0\x80",         "\xE0\x80\x80",     "\xED\xA0\x80",
                                      "\xED\x9F\xBF",     "\xF4\x8F\xBF\xBF", "\xF4\x90\x80\x80",
                                      "\xEF\xBF\xBD",     "\xEF\xBB\xBF",     "\xF0\x90\x80\x80",
                                      "\xF0\x8F\xBF\xBF", "\xE0\xA0\x80",     "\xC2\x80",
                                      "\xDF\xBF"};
        int validCount = 0;
        for (int round = 0; round < 6000; ++round) {
            QByteArray bytes;
            const int pieces = random.bounded(0, 12);
            for (int i = 0; i < pieces; ++i) {
                switch (random.bounded(6)) {
                case 0:
                    bytes += char(random.bounded(256));
                    break;
                case 1:
                    bytes += QByteArray(random.bounded(1, 20), char(random.bounded(0x20, 0x7F)));
                    break;
                case 2:
                    bytes += nasty[random.bounded(int(nasty.size()))];
                    break;
                case 3:
                    bytes += char(0x80 | random.bounded(64));
                    break;
                default: {
                    char32_t point = 0;
                    do {
                        point = char32_t(random.bounded(0x110000));
                    } while (point >= 0xD800 && point <= 0xDFFF);
                    bytes += utf8(point);
                    break;
                }
                }
            }
            // The two references must agree before either is trusted.
            const bool valid = referenceValid(bytes);
            QVERIFY2(qtValid(bytes) == valid, bytes.toHex().constData());
            validCount += valid ? 1 : 0;

            Utf8Validator validator;
            qsizetype fed = 0;
            while (fed < bytes.size()) {
                const qsizetype piece =
                    std::min<qsizetype>(bytes.size() - fed, random.bounded(0, 12));
                validator.feed(QByteArrayView(bytes).sliced(fed, piece));
                fed += piece;
                QCOMPARE(validator.valid(), referenceExtendable(bytes.first(fed)));
            }
            QCOMPARE(validator.complete(), valid);
        }
        // The mix must exercise both answers.
        QVERIFY(validCount > 600);
        QVERIFY(validCount < 5400);
    }

    // Byte by byte, the validator says "invalid" exactly at the first byte that makes it so.
    void validatorFailsAtTheFirstCertainByte() {
        QRandomGenerator random(11);
        for (int round = 0; round < 3000; ++round) {
            QByteArray bytes;
            const int length = random.bounded(1, 10);
            for (int i = 0; i < length; ++i) {
                // Mostly high bytes: where the ranges are.
                bytes += char(random.bounded(3) == 0 ? random.bounded(256)
                                                     : random.bounded(0x80, 0x100));
            }
            Utf8Validator validator;
            for (qsizetype i = 0; i < bytes.size(); ++i) {
                const bool stillValid = validator.feed(QByteArrayView(bytes).sliced(i, 1));
                QCOMPARE(stillValid, referenceExtendable(bytes.first(i + 1)));
                QCOMPARE(validator.valid(), stillValid);
            }
            validator.reset();
            QVERIFY(validator.complete());
        }
    }

    // The ASCII fast path reads eight bytes at a time: a non-ASCII byte at every offset of a
    // word, with the word cut at every offset.
    void validatorWordBoundaries() {
        for (int at = 0; at < 24; ++at) {
            for (const QByteArray& inner : {QByteArray("\xC3\xA9"), QByteArray("\xFF"),
                                            QByteArray("\xE2\x82"), QByteArray("\x80")}) {
                const QByteArray bytes = QByteArray(at, 'a') + inner + QByteArray(9, 'b');
                const bool valid = referenceValid(bytes);
                for (qsizetype cut = 0; cut <= bytes.size(); ++cut) {
                    Utf8Validator validator;
                    validator.feed(QByteArrayView(bytes).first(cut));
                    QCOMPARE(validator.valid(), referenceExtendable(bytes.first(cut)));
                    validator.feed(QByteArrayView(bytes).sliced(cut));
                    QCOMPARE(validator.complete(), valid);
                }
            }
        }
    }
};

QTEST_GUILESS_MAIN(WebSocketFramerTest)
#include "tst_websocketframer.moc"
