#include "Utf8Decoder.h"

#include <QByteArray>
#include <QString>
#include <QTest>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace {

// Every well-formed UTF-8 sequence and every proper prefix of one, as produced by Qt's own
// encoder; the reference decoder below knows nothing about UTF-8 beyond these two tables.
std::vector<std::uint64_t> completeSequences;
std::vector<std::uint64_t> properPrefixes;

std::uint64_t keyOf(const unsigned char* bytes, int length) {
    std::uint64_t key = static_cast<std::uint64_t>(length) << 32;
    for (int i = 0; i < length; ++i) {
        key |= static_cast<std::uint64_t>(bytes[i]) << (8 * (3 - i));
    }
    return key;
}

bool contains(const std::vector<std::uint64_t>& table, std::uint64_t key) {
    return std::binary_search(table.begin(), table.end(), key);
}

void buildTables() {
    if (!completeSequences.empty()) {
        return;
    }
    for (char32_t scalar = 0; scalar <= 0x10FFFF; ++scalar) {
        if (scalar >= 0xD800 && scalar <= 0xDFFF) {
            continue;
        }
        const QByteArray encoded = QString::fromUcs4(&scalar, 1).toUtf8();
        const auto bytes = reinterpret_cast<const unsigned char*>(encoded.constData());
        const int length = static_cast<int>(encoded.size());
        completeSequences.push_back(keyOf(bytes, length));
        for (int prefix = 1; prefix < length; ++prefix) {
            properPrefixes.push_back(keyOf(bytes, prefix));
        }
    }
    std::sort(completeSequences.begin(), completeSequences.end());
    std::sort(properPrefixes.begin(), properPrefixes.end());
    properPrefixes.erase(std::unique(properPrefixes.begin(), properPrefixes.end()),
                         properPrefixes.end());
}

// Straight from the definition: at each position take the longest run of bytes that is a
// well-formed sequence or the start of one; a complete sequence is a character, anything else
// (that run, or a single byte when there is none) is one U+FFFD.
QString referenceDecode(const QByteArray& input) {
    const auto bytes = reinterpret_cast<const unsigned char*>(input.constData());
    const qsizetype size = input.size();
    QString out;
    qsizetype i = 0;
    while (i < size) {
        int longest = 0;
        bool complete = false;
        for (int length = 1; length <= 4 && i + length <= size; ++length) {
            const std::uint64_t key = keyOf(bytes + i, length);
            if (contains(completeSequences, key)) {
                longest = length;
                complete = true;
                break;
            }
            if (!contains(properPrefixes, key)) {
                break;
            }
            longest = length;
        }
        if (complete) {
            out += QString::fromUtf8(input.mid(i, longest));
            i += longest;
        } else {
            out += QChar(0xFFFD);
            i += std::max(longest, 1);
        }
    }
    return out;
}

QString decodeInPieces(const QByteArray& bytes, const std::vector<qsizetype>& cuts) {
    Utf8Decoder decoder;
    QString out;
    qsizetype start = 0;
    for (qsizetype cut : cuts) {
        decoder.feed(bytes.constData() + start, static_cast<std::size_t>(cut - start), out);
        start = cut;
    }
    decoder.feed(bytes.constData() + start, static_cast<std::size_t>(bytes.size() - start), out);
    decoder.finish(out);
    return out;
}

QByteArray randomBytes(std::mt19937& random) {
    // Mostly bytes that matter to UTF-8: leads, continuations and the edges of their ranges.
    static const unsigned char interesting[] = {
        0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xA9, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF,
        0xE0, 0xE1, 0xE2, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF8, 0xFF};
    QByteArray bytes;
    const unsigned length = random() % 40;
    for (unsigned i = 0; i < length; ++i) {
        const unsigned pick = random() % 4;
        if (pick == 0) {
            bytes.append(static_cast<char>(random() % 256));
        } else {
            bytes.append(static_cast<char>(interesting[random() % sizeof interesting]));
        }
    }
    return bytes;
}

QByteArray bytesOf(std::initializer_list<int> values) {
    QByteArray bytes;
    for (int value : values) {
        bytes.append(static_cast<char>(value));
    }
    return bytes;
}

} // namespace

class Utf8DecoderTest : public QObject {
    Q_OBJECT

private:
    static void addCases() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("expected");

        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("ascii") << QByteArray("plain text\r\n") << QStringLiteral("plain text\r\n");
        QTest::newRow("nul is a character")
            << QByteArray("a\0b", 3) << QStringView(u"a\0b", 3).toString();
        QTest::newRow("two-byte") << bytesOf({0xC3, 0xA9}) << QStringLiteral("\u00E9");
        QTest::newRow("three-byte") << bytesOf({0xE2, 0x82, 0xAC}) << QStringLiteral("\u20AC");
        QTest::newRow("four-byte")
            << bytesOf({0xF0, 0x9F, 0x98, 0x80}) << QStringLiteral("\U0001F600");
        QTest::newRow("lowest three-byte")
            << bytesOf({0xE0, 0xA0, 0x80}) << QStringLiteral("\u0800");
        QTest::newRow("lowest four-byte")
            << bytesOf({0xF0, 0x90, 0x80, 0x80}) << QStringLiteral("\U00010000");
        QTest::newRow("last before surrogates")
            << bytesOf({0xED, 0x9F, 0xBF}) << QStringLiteral("\uD7FF");
        QTest::newRow("first after surrogates")
            << bytesOf({0xEE, 0x80, 0x80}) << QStringLiteral("\uE000");
        QTest::newRow("noncharacter U+FFFF is kept")
            << bytesOf({0xEF, 0xBF, 0xBF}) << QString(QChar(0xFFFF));
        QTest::newRow("highest scalar")
            << bytesOf({0xF4, 0x8F, 0xBF, 0xBF}) << QStringLiteral("\U0010FFFF");
        QTest::newRow("a real U+FFFD") << bytesOf({0xEF, 0xBF, 0xBD}) << QStringLiteral("\uFFFD");

        QTest::newRow("lone continuation") << bytesOf({0x80}) << QStringLiteral("\uFFFD");
        QTest::newRow("two continuations")
            << bytesOf({0x80, 0xBF}) << QStringLiteral("\uFFFD\uFFFD");
        QTest::newRow("F0 80 80: bad second byte")
            << bytesOf({0xF0, 0x80, 0x80}) << QStringLiteral("\uFFFD\uFFFD\uFFFD");
        QTest::newRow("E2 82 cut by the end") << bytesOf({0xE2, 0x82}) << QStringLiteral("\uFFFD");
        QTest::newRow("E2 82 before ASCII")
            << bytesOf({0xE2, 0x82, 0x41}) << QStringLiteral("\uFFFDA");
        QTest::newRow("F0 9F 98 cut by the end")
            << bytesOf({0xF0, 0x9F, 0x98}) << QStringLiteral("\uFFFD");
        QTest::newRow("cut sequence before a whole one")
            << bytesOf({0xF0, 0x9F, 0xF0, 0x9F, 0x98, 0x80}) << QStringLiteral("\uFFFD\U0001F600");
        QTest::newRow("high surrogate")
            << bytesOf({0xED, 0xA0, 0x80}) << QStringLiteral("\uFFFD\uFFFD\uFFFD");
        QTest::newRow("low surrogate")
            << bytesOf({0xED, 0xBF, 0xBF}) << QStringLiteral("\uFFFD\uFFFD\uFFFD");
        QTest::newRow("overlong slash C0 AF")
            << bytesOf({0xC0, 0xAF}) << QStringLiteral("\uFFFD\uFFFD");
        QTest::newRow("overlong C1 BF") << bytesOf({0xC1, 0xBF}) << QStringLiteral("\uFFFD\uFFFD");
        QTest::newRow("overlong three-byte")
            << bytesOf({0xE0, 0x80, 0xAF}) << QStringLiteral("\uFFFD\uFFFD\uFFFD");
        QTest::newRow("overlong four-byte")
            << bytesOf({0xF0, 0x80, 0x80, 0xAF}) << QStringLiteral("\uFFFD\uFFFD\uFFFD\uFFFD");
        QTest::newRow("above U+10FFFF")
            << bytesOf({0xF4, 0x90, 0x80, 0x80}) << QStringLiteral("\uFFFD\uFFFD\uFFFD\uFFFD");
        QTest::newRow("F5 lead") << bytesOf({0xF5, 0x80, 0x80, 0x80})
                                 << QStringLiteral("\uFFFD\uFFFD\uFFFD\uFFFD");
        QTest::newRow("old five-byte form") << bytesOf({0xF8, 0x88, 0x80, 0x80, 0x80})
                                            << QStringLiteral("\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
        QTest::newRow("FE FF") << bytesOf({0xFE, 0xFF}) << QStringLiteral("\uFFFD\uFFFD");
        QTest::newRow("lead interrupted by lead")
            << bytesOf({0xC2, 0xC3, 0xA9}) << QStringLiteral("\uFFFD\u00E9");
        QTest::newRow("Unicode standard example")
            << bytesOf(
                   {0x61, 0xF1, 0x80, 0x80, 0xE1, 0x80, 0xC2, 0x62, 0x80, 0x63, 0x80, 0xBF, 0x64})
            << QStringLiteral("a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd");
    }

private slots:
    void initTestCase() { buildTables(); }

    void decodesWithMaximalSubpartRepair_data() { addCases(); }
    void decodesWithMaximalSubpartRepair() {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, expected);
        QCOMPARE(Utf8Decoder::decode(bytes), expected);
        QCOMPARE(referenceDecode(bytes), expected); // the reference agrees with the table
    }

    void anySplitEqualsOneShot_data() { addCases(); }
    void anySplitEqualsOneShot() {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, expected);
        for (qsizetype cut = 0; cut <= bytes.size(); ++cut) {
            QCOMPARE(decodeInPieces(bytes, {cut}), expected);
        }
        std::vector<qsizetype> everyByte;
        for (qsizetype cut = 1; cut < bytes.size(); ++cut) {
            everyByte.push_back(cut);
        }
        QCOMPARE(decodeInPieces(bytes, everyByte), expected);
    }

    void decodesEveryScalarValue() {
        QString all;
        for (char32_t scalar = 0; scalar <= 0x10FFFF; ++scalar) {
            if (scalar < 0xD800 || scalar > 0xDFFF) {
                all += QString::fromUcs4(&scalar, 1);
            }
        }
        const QByteArray bytes = all.toUtf8();
        QCOMPARE(Utf8Decoder::decode(bytes), all);
        // Also when every chunk boundary falls somewhere else inside a sequence.
        std::vector<qsizetype> cuts;
        for (qsizetype cut = 7; cut < bytes.size(); cut += 4093) {
            cuts.push_back(cut);
        }
        QCOMPARE(decodeInPieces(bytes, cuts), all);
    }

    void agreesWithReferenceOnEveryInputUpToTwoBytes() {
        for (int first = 0; first < 256; ++first) {
            const QByteArray one = bytesOf({first});
            QCOMPARE(Utf8Decoder::decode(one), referenceDecode(one));
            for (int second = 0; second < 256; ++second) {
                const QByteArray two = bytesOf({first, second});
                const QString expected = referenceDecode(two);
                if (Utf8Decoder::decode(two) != expected) {
                    QFAIL(qPrintable(
                        QStringLiteral("differs on %1").arg(QString::fromLatin1(two.toHex(' ')))));
                }
            }
        }
    }

    void agreesWithReferenceOnEdgeBytesUpToFourBytes() {
        static const int edges[] = {0x41, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2,
                                    0xDF, 0xE0, 0xE1, 0xED, 0xEE, 0xEF, 0xF0, 0xF4, 0xF5};
        for (int a : edges) {
            for (int b : edges) {
                for (int c : edges) {
                    const QByteArray three = bytesOf({a, b, c});
                    QCOMPARE(Utf8Decoder::decode(three), referenceDecode(three));
                    for (int d : edges) {
                        const QByteArray four = bytesOf({a, b, c, d});
                        if (Utf8Decoder::decode(four) != referenceDecode(four)) {
                            QFAIL(qPrintable(QStringLiteral("differs on %1")
                                                 .arg(QString::fromLatin1(four.toHex(' ')))));
                        }
                    }
                }
            }
        }
    }

    void randomInputInRandomPiecesMatchesReference() {
        std::mt19937 random(20240611);
        for (int round = 0; round < 20000; ++round) {
            const QByteArray bytes = randomBytes(random);
            const QString oneShot = Utf8Decoder::decode(bytes);
            const QString expected = referenceDecode(bytes);
            if (oneShot != expected) {
                QFAIL(qPrintable(QStringLiteral("round %1: one-shot decoding differs on %2")
                                     .arg(round)
                                     .arg(QString::fromLatin1(bytes.toHex(' ')))));
            }
            std::vector<qsizetype> cuts;
            if (!bytes.isEmpty()) {
                const unsigned pieces = random() % 6;
                for (unsigned i = 0; i < pieces; ++i) {
                    cuts.push_back(static_cast<qsizetype>(random() % (bytes.size() + 1)));
                }
                std::sort(cuts.begin(), cuts.end()); // repeated cuts feed empty chunks
            }
            if (decodeInPieces(bytes, cuts) != oneShot) {
                QFAIL(qPrintable(QStringLiteral("round %1: decoding in pieces differs on %2")
                                     .arg(round)
                                     .arg(QString::fromLatin1(bytes.toHex(' ')))));
            }
        }
    }

    void finishTurnsPendingPrefixIntoOneReplacement() {
        Utf8Decoder decoder;
        QString out;
        decoder.feed("a\xF0\x9F", 3, out);
        QCOMPARE(out, QStringLiteral("a")); // the cut sequence waits for more
        decoder.feed("\x98", 1, out);
        QCOMPARE(out, QStringLiteral("a"));
        decoder.finish(out);
        QCOMPARE(out, QStringLiteral("a\uFFFD"));
    }

    void pendingSequenceCompletedByNextChunk() {
        Utf8Decoder decoder;
        QString out;
        decoder.feed("\xF0", 1, out);
        decoder.feed("\x9F\x98", 2, out);
        decoder.feed("\x80!", 2, out);
        decoder.finish(out);
        QCOMPARE(out, QStringLiteral("\U0001F600!"));
    }

    void decoderStartsAfreshAfterFinish() {
        Utf8Decoder decoder;
        QString out;
        decoder.feed("\xE2\x82", 2, out);
        decoder.finish(out);
        decoder.feed("\xAC", 1, out); // a stray continuation now, not the end of the euro sign
        decoder.finish(out);
        QCOMPARE(out, QStringLiteral("\uFFFD\uFFFD"));
    }
};

QTEST_GUILESS_MAIN(Utf8DecoderTest)
#include "tst_utf8decoder.moc"
