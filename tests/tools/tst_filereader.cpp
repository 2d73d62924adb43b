#include "DescriptorLimit.h"
#include "FileReader.h"
#include "FileSystemError.h"
#include "TempTree.h"
#include "ToolCall.h"
#include "Unprivileged.h"
#include "Utf8Decoder.h"

#include <QFile>
#include <QJsonArray>
#include <QTemporaryFile>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unicode/ubrk.h>

namespace {

constexpr qsizetype limit = FileReader::characterLimit;
constexpr qsizetype readChunk = 256 * 1024; // the reader's read size

QJsonObject readCall(const QString& path, const QList<SharedFolder>& folders) {
    return ToolCall::run(QStringLiteral("local_read_file"), {{QStringLiteral("path"), path}},
                         folders);
}

QJsonObject content(const QString& path, const QString& text, bool truncated) {
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("content"), text},
                       {QStringLiteral("truncated"), truncated}};
}

constexpr qsizetype codePointLimit = FileReader::characterCodePointLimit;

// The extended grapheme cluster boundaries of a whole text, from ICU, after the start. Qt's
// QTextBoundaryFinder cannot serve as the reference: next to Indic text, and for flags after an
// emoji, it reports boundaries inside characters.
std::vector<qsizetype> clusterBoundaries(const QString& text) {
    std::vector<qsizetype> result;
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* iterator =
        ubrk_open(UBRK_CHARACTER, "", reinterpret_cast<const UChar*>(text.constData()),
                  static_cast<int32_t>(text.size()), &status);
    if (U_FAILURE(status)) {
        qFatal("no character break iterator: %s", u_errorName(status));
    }
    for (int32_t next = ubrk_next(iterator); next != UBRK_DONE; next = ubrk_next(iterator)) {
        result.push_back(next);
    }
    ubrk_close(iterator);
    return result;
}

// The character boundaries of a whole text after the start: its clusters, each cut into pieces
// of `codePointLimit` code points, the last one shorter.
std::vector<qsizetype> boundaries(const QString& text) {
    std::vector<qsizetype> result;
    qsizetype start = 0;
    for (const qsizetype end : clusterBoundaries(text)) {
        qsizetype codePoints = 0;
        for (qsizetype at = start; at < end; ++at) {
            if (text.at(at).isLowSurrogate()) {
                continue; // the second half of a code point
            }
            if (codePoints == codePointLimit) {
                result.push_back(at);
                codePoints = 0;
            }
            ++codePoints;
        }
        result.push_back(end);
        start = end;
    }
    return result;
}

qsizetype clusterCount(const QString& text) {
    return static_cast<qsizetype>(clusterBoundaries(text).size());
}

qsizetype characterCount(const QString& text) {
    return static_cast<qsizetype>(boundaries(text).size());
}

// What reading must give: the whole input decoded, then cut after `count` characters.
FileReader::Text reference(const QByteArray& bytes, qsizetype count) {
    FileReader::Text expected;
    expected.content = Utf8Decoder::decode(bytes);
    const std::vector<qsizetype> ends = boundaries(expected.content);
    if (static_cast<qsizetype>(ends.size()) > count) {
        expected.content.truncate(count == 0 ? 0 : ends[static_cast<std::size_t>(count - 1)]);
        expected.truncated = true;
    }
    return expected;
}

// Feeds `packets` to FileReader::readText through a socket that keeps their boundaries, so
// every packet is exactly one read. With `end` a writer thread sends them and then ends the
// input. Without it the packets are queued first and the input never ends: a reader that asks
// for more than it needs fails with EAGAIN instead of waiting; `unread` receives what is left.
void readPackets(const QList<QByteArray>& packets, bool end, qsizetype count,
                 FileReader::Text& text, int& error, QByteArray* unread = nullptr) {
    int pair[2];
    QVERIFY(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
    for (const QByteArray& packet : packets) {
        QVERIFY(!packet.isEmpty()); // an empty packet would read as the end
    }
    std::thread writer;
    if (end) {
        writer = std::thread([&packets, fd = pair[1]] {
            for (const QByteArray& packet : packets) {
                // Fails once the reader has stopped and closed its end; that is fine.
                if (::send(fd, packet.constData(), static_cast<std::size_t>(packet.size()),
                           MSG_NOSIGNAL) != packet.size()) {
                    return;
                }
            }
            ::shutdown(fd, SHUT_WR);
        });
    } else {
        for (const QByteArray& packet : packets) {
            const ssize_t sent = ::send(pair[1], packet.constData(),
                                        static_cast<std::size_t>(packet.size()), MSG_DONTWAIT);
            QCOMPARE(sent, static_cast<ssize_t>(packet.size()));
        }
        ::fcntl(pair[0], F_SETFL, ::fcntl(pair[0], F_GETFL) | O_NONBLOCK);
    }
    error = FileReader::readText(pair[0], count, text);
    if (unread) {
        char buffer[4096];
        ssize_t got = 0;
        while ((got = ::recv(pair[0], buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
            unread->append(buffer, got);
        }
    }
    ::close(pair[0]);
    if (writer.joinable()) {
        writer.join();
    }
    ::close(pair[1]);
}

// Reads `packets` with a limit of `count` characters and compares the outcome with decoding the
// whole text and cutting it; a failure names the round, the limit and `input`.
bool readsLikeWholeText(const QList<QByteArray>& packets, const QByteArray& bytes, qsizetype count,
                        int round, const QString& input) {
    FileReader::Text text;
    int error = -1;
    readPackets(packets, true, count, text, error);
    if (QTest::currentTestFailed()) {
        return false;
    }
    const FileReader::Text expected = reference(bytes, count);
    if (error == 0 && text.content == expected.content && text.truncated == expected.truncated) {
        return true;
    }
    QTest::qFail(qPrintable(QStringLiteral("round %1, limit %2, error %3: got %4 characters "
                                           "(truncated %5), expected %6 (truncated %7); %8")
                                .arg(round)
                                .arg(count)
                                .arg(error)
                                .arg(characterCount(text.content))
                                .arg(text.truncated)
                                .arg(characterCount(expected.content))
                                .arg(expected.truncated)
                                .arg(input)),
                 __FILE__, __LINE__);
    return false;
}

// Pieces of text that stress decoding and cluster boundaries.
const std::vector<QByteArray>& pieces() {
    static const std::vector<QByteArray> all = {"a",
                                                "Z",
                                                " ",
                                                "\r\n",
                                                "\r",
                                                "\n",
                                                "\t",
                                                QByteArray("\0", 1),
                                                "\xC3\xA9",         // precomposed e acute
                                                "\xE4\xB8\xAD",     // CJK
                                                "\xF0\x9F\x98\x80", // emoji
                                                "\xF0\x9F\x91\xA8", // man
                                                "\xF0\x9F\x91\xA9", // woman
                                                "\xE2\x80\x8D",     // zero width joiner
                                                "\xF0\x9F\x8F\xBD", // skin tone modifier
                                                "\xEF\xB8\x8F",     // variation selector 16
                                                "\xCC\x81",         // combining acute
                                                "\xCC\xA3",         // combining dot below
                                                "\xF0\x9F\x87\xAB", // regional indicator F
                                                "\xF0\x9F\x87\xB7", // regional indicator R
                                                "\xE1\x84\x80",     // Hangul leading consonant
                                                "\xE1\x85\xA1",     // Hangul vowel
                                                "\xE1\x86\xA8",     // Hangul trailing consonant
                                                "\xEA\xB0\x80",     // Hangul LV syllable
                                                "\xD8\x80",         // Arabic number sign (prepend)
                                                "\xE0\xA4\x83", // Devanagari visarga (spacing mark)
                                                "\xE0\xA4\x95", // Devanagari KA
                                                "\xE0\xA5\x8D", // Devanagari virama
                                                "\xE0\xB8\x81", // Thai KO KAI
                                                "\xEF\xBF\xBD", // a real U+FFFD
                                                "\x80",
                                                "\xBF",
                                                "\xC0",
                                                "\xFF",
                                                "\xE2\x82",
                                                "\xF0\x9F",
                                                "\xED\xA0\x80",
                                                "\xF4\x90\x80\x80"};
    return all;
}

QByteArray randomText(std::mt19937& random) {
    QByteArray bytes;
    const unsigned count = random() % 61;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned pick = random() % 10;
        if (pick < 2) {
            // A run of regional indicators, odd or even, pairs or not.
            const unsigned run = 1 + random() % 5;
            for (unsigned k = 0; k < run; ++k) {
                bytes.append("\xF0\x9F\x87");
                bytes.append(static_cast<char>(0xA6 + random() % 26));
            }
        } else if (pick < 3) {
            // An emoji family: person, joiner, person, maybe with skin tones.
            bytes.append("\xF0\x9F\x91\xA8");
            if (random() % 2) {
                bytes.append("\xF0\x9F\x8F\xBD");
            }
            bytes.append("\xE2\x80\x8D\xF0\x9F\x91\xA9");
        } else {
            bytes.append(pieces()[random() % pieces().size()]);
        }
    }
    return bytes;
}

// Mostly runs of characters that never join a neighbour like them (ASCII, Latin, Cyrillic,
// CJK, a dash, controls), so that the edges of those runs meet every kind of joining piece.
QByteArray randomPlainText(std::mt19937& random) {
    static const std::vector<QByteArray> plain = {
        "a",
        "Z",
        " ",
        ".",
        "\t",
        "\r",
        "\n",
        "\xC3\xA9",
        "\xD0\xB8",
        "\xE4\xB8\xAD",
        "\xE2\x80\x94",
        "\xC2\xAD",
        "\xE0\xA4\x95" /* Devanagari KA, joined by a virama */};
    QByteArray bytes;
    const unsigned count = random() % 40;
    for (unsigned i = 0; i < count; ++i) {
        if (random() % 3 == 0) {
            bytes.append(pieces()[random() % pieces().size()]);
            continue;
        }
        const unsigned run = 1 + random() % 12;
        for (unsigned k = 0; k < run; ++k) {
            bytes.append(plain[random() % plain.size()]);
        }
    }
    return bytes;
}

// Bases, each followed by 0 to 100 marks, joiners, viramas, skin tones or the like, so that
// ICU's clusters often run past the code point limit; sometimes a joiner and an emoji or a virama
// and a consonant after them, which ICU joins across all the marks before. Pieces in between.
QByteArray randomLongClusters(std::mt19937& random) {
    static const std::vector<QByteArray> bases = {"a",
                                                  "\xF0\x9F\x91\xA8", // man
                                                  "\xE0\xA4\x95",     // Devanagari KA
                                                  "\xE1\x84\x80",     // Hangul leading consonant
                                                  "\xD8\x80", // Arabic number sign (prepend)
                                                  "\xF0\x9F\x87\xAB", // regional indicator F
                                                  "\r",
                                                  "\xCC\x81"};        // a mark with nothing to join
    static const std::vector<QByteArray> marks = {"\xCC\x81",         // combining acute
                                                  "\xCC\xA3",         // combining dot below
                                                  "\xE2\x80\x8D",     // zero width joiner
                                                  "\xEF\xB8\x8F",     // variation selector 16
                                                  "\xE0\xA5\x8D",     // Devanagari virama
                                                  "\xF0\x9F\x8F\xBD", // skin tone modifier
                                                  "\xE0\xA4\x83",     // Devanagari visarga
                                                  "\xE1\x85\xA1",     // Hangul vowel
                                                  "\xD8\x80",         // prepend
                                                  "\xF3\xA0\x80\xA1"}; // tag
    QByteArray bytes;
    const unsigned count = 1 + random() % 6;
    for (unsigned i = 0; i < count; ++i) {
        if (random() % 4 == 0) {
            bytes.append(pieces()[random() % pieces().size()]);
            continue;
        }
        bytes.append(bases[random() % bases.size()]);
        // One mark over and over, or a mix.
        const QByteArray& same = marks[random() % marks.size()];
        const bool mixed = random() % 2 == 0;
        const unsigned run = random() % 101;
        for (unsigned k = 0; k < run; ++k) {
            bytes.append(mixed ? marks[random() % marks.size()] : same);
        }
        const unsigned tail = random() % 4;
        if (tail == 0) {
            bytes.append("\xE2\x80\x8D\xF0\x9F\x91\xA9"); // joiner, woman
        } else if (tail == 1) {
            bytes.append("\xE0\xA5\x8D\xE0\xA4\x95"); // virama, KA
        }
    }
    return bytes;
}

QList<QByteArray> randomPackets(std::mt19937& random, const QByteArray& bytes) {
    std::vector<qsizetype> cuts;
    if (bytes.size() > 1) {
        if (random() % 10 == 0) {
            for (qsizetype cut = 1; cut < bytes.size(); ++cut) {
                cuts.push_back(cut);
            }
        } else {
            const unsigned count = random() % 9;
            for (unsigned i = 0; i < count; ++i) {
                cuts.push_back(1 + static_cast<qsizetype>(random() % (bytes.size() - 1)));
            }
            std::sort(cuts.begin(), cuts.end());
            cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        }
    }
    QList<QByteArray> packets;
    qsizetype start = 0;
    for (qsizetype cut : cuts) {
        packets.append(bytes.mid(start, cut - start));
        start = cut;
    }
    if (start < bytes.size()) {
        packets.append(bytes.mid(start));
    }
    return packets;
}

// `count` characters of one to three bytes, `size` bytes in all (empty when impossible).
QByteArray charactersFilling(qsizetype count, qsizetype size) {
    const qsizetype extra = size - count; // bytes beyond one per character
    const qsizetype twoByte = extra % 2;
    const qsizetype threeByte = extra / 2;
    if (extra < 0 || twoByte + threeByte > count) {
        return QByteArray();
    }
    return QByteArray("a").repeated(count - twoByte - threeByte) +
           QByteArray("\xC3\xA9").repeated(twoByte) +
           QByteArray("\xE4\xB8\xAD").repeated(threeByte);
}

QString textOf(const char* utf8) {
    return QString::fromUtf8(utf8);
}

// Reads `characters`, joined, one more character at a time and checks that each read adds the
// next one; the expected characters are written out by hand.
void readsCharacterByCharacter(const QStringList& characters) {
    const QByteArray bytes = characters.join(QString()).toUtf8();
    QTemporaryFile file;
    QVERIFY(file.open());
    QCOMPARE(file.write(bytes), bytes.size());
    QVERIFY(file.flush());
    QStringList seen;
    QString previous;
    for (qsizetype count = 1; count <= characters.size() + 1; ++count) {
        QVERIFY(::lseek(file.handle(), 0, SEEK_SET) == 0);
        FileReader::Text text;
        QCOMPARE(FileReader::readText(file.handle(), count, text), 0);
        QCOMPARE(text.truncated, count < characters.size());
        QVERIFY(text.content.startsWith(previous));
        if (text.content.size() > previous.size()) {
            seen.append(text.content.mid(previous.size()));
        }
        previous = text.content;
    }
    QCOMPARE(seen, characters);
    QCOMPARE(reference(bytes, characters.size()).content, previous);
    QCOMPARE(characterCount(previous), characters.size());
}

// One line of /proc/self/status, in KiB.
std::optional<qint64> statusKiB(const char* field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(prefix)) {
            bool ok = false;
            const qint64 value =
                line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong(&ok);
            return ok ? std::optional<qint64>(value) : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace

class FileReaderTest : public QObject {
    Q_OBJECT

private:
    static QList<SharedFolder> docs(const TempTree& tree) {
        return {ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs")))};
    }

private slots:
    void emptyFileGivesEmptyContent() {
        TempTree tree;
        tree.file(QStringLiteral("docs/empty.txt"));
        QCOMPARE(readCall(QStringLiteral("Docs/empty.txt"), docs(tree)),
                 content(QStringLiteral("Docs/empty.txt"), QString(), false));
    }

    void pathComesBackExactlyAsSent() {
        TempTree tree;
        tree.file(QStringLiteral("docs/sub/a.txt"), "hello");
        for (const QString& path :
             {QStringLiteral("Docs/sub/a.txt/"), QStringLiteral("/Docs/sub/a.txt"),
              QStringLiteral("Docs/sub/./x/../a.txt"), QStringLiteral("Docs//sub//a.txt")}) {
            QCOMPARE(readCall(path, docs(tree)), content(path, QStringLiteral("hello"), false));
        }
    }

    void readsFromTheNamedOfTwoFolders() {
        TempTree tree;
        tree.file(QStringLiteral("one/a.txt"), "first");
        tree.file(QStringLiteral("two/a.txt"), "second");
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("One"), tree.path(QStringLiteral("one"))),
            ToolCall::folder(QStringLiteral("Two"), tree.path(QStringLiteral("two")))};
        QCOMPARE(readCall(QStringLiteral("Two/a.txt"), folders),
                 content(QStringLiteral("Two/a.txt"), QStringLiteral("second"), false));
        QCOMPARE(readCall(QStringLiteral("One/a.txt"), folders),
                 content(QStringLiteral("One/a.txt"), QStringLiteral("first"), false));
    }

    void directoryIsFileNotFound() {
        TempTree tree;
        tree.dir(QStringLiteral("docs/sub"));
        QCOMPARE(readCall(QStringLiteral("Docs/sub"), docs(tree)),
                 ToolCall::error(QStringLiteral("File not found: Docs/sub")));
        QCOMPARE(readCall(QStringLiteral("Docs"), docs(tree)),
                 ToolCall::error(QStringLiteral("File not found: Docs")));
    }

    void missingFileQuotesThePathAsSent() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        QCOMPARE(readCall(QStringLiteral("/Docs/nope.txt/"), docs(tree)),
                 ToolCall::error(QStringLiteral("File not found: /Docs/nope.txt/")));
    }

    void linkToFileIsReadAndLinkToDirectoryIsNotFound() {
        TempTree tree;
        tree.file(QStringLiteral("docs/real.txt"), "linked");
        tree.dir(QStringLiteral("docs/sub"));
        tree.symlink(QStringLiteral("docs/alias.txt"), QStringLiteral("real.txt"));
        tree.symlink(QStringLiteral("docs/subdir"), QStringLiteral("sub"));
        tree.symlink(QStringLiteral("docs/dangling"), QStringLiteral("gone.txt"));
        QCOMPARE(readCall(QStringLiteral("Docs/alias.txt"), docs(tree)),
                 content(QStringLiteral("Docs/alias.txt"), QStringLiteral("linked"), false));
        QCOMPARE(readCall(QStringLiteral("Docs/subdir"), docs(tree)),
                 ToolCall::error(QStringLiteral("File not found: Docs/subdir")));
        QCOMPARE(readCall(QStringLiteral("Docs/dangling"), docs(tree)),
                 ToolCall::error(QStringLiteral("File not found: Docs/dangling")));
    }

    void exactlyTheLimitIsNotTruncated() {
        TempTree tree;
        const QByteArray text = QByteArray("a").repeated(limit);
        tree.file(QStringLiteral("docs/full.txt"), text);
        QCOMPARE(readCall(QStringLiteral("Docs/full.txt"), docs(tree)),
                 content(QStringLiteral("Docs/full.txt"), QString::fromLatin1(text), false));
    }

    void oneCharacterMoreIsTruncated() {
        TempTree tree;
        tree.file(QStringLiteral("docs/over.txt"),
                  QByteArray("a").repeated(limit - 1) + QByteArray("bc"));
        const QString expected = QString(limit - 1, u'a') + u'b';
        QCOMPARE(readCall(QStringLiteral("Docs/over.txt"), docs(tree)),
                 content(QStringLiteral("Docs/over.txt"), expected, true));
    }

    void multiCodePointCharacterCountsAsOne_data() {
        QTest::addColumn<QByteArray>("character");
        QTest::newRow("combining accents") << QByteArray("e\xCC\x81\xCC\xA3");
        QTest::newRow("family with joiners")
            << QByteArray("\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91"
                          "\xA7\xE2\x80\x8D\xF0\x9F\x91\xA6");
        QTest::newRow("flag") << QByteArray("\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7");
        QTest::newRow("skin tone") << QByteArray("\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD");
        QTest::newRow("Hangul jamo") << QByteArray("\xE1\x84\x80\xE1\x85\xA1\xE1\x86\xA8");
        QTest::newRow("CR LF") << QByteArray("\r\n");
        QTest::newRow("replacement with a mark") << QByteArray("\xFF\xCC\x81");
    }
    void multiCodePointCharacterCountsAsOne() {
        QFETCH(QByteArray, character);
        const QString one = Utf8Decoder::decode(character);
        QCOMPARE(characterCount(one), 1);
        TempTree tree;
        tree.file(QStringLiteral("docs/full.txt"), character.repeated(limit));
        tree.file(QStringLiteral("docs/over.txt"), character.repeated(limit + 1));
        QCOMPARE(readCall(QStringLiteral("Docs/full.txt"), docs(tree)),
                 content(QStringLiteral("Docs/full.txt"), one.repeated(limit), false));
        QCOMPARE(readCall(QStringLiteral("Docs/over.txt"), docs(tree)),
                 content(QStringLiteral("Docs/over.txt"), one.repeated(limit), true));
    }

    void charactersAreExtendedGraphemeClusters_data() {
        QTest::addColumn<QStringList>("characters");
        QTest::newRow("combining marks") << QStringList{
            textOf("e\xCC\x81\xCC\xA3"), textOf("x\xCC\x81"), textOf("\n"), textOf("\xCC\x81")};
        QTest::newRow("CR LF") << QStringList{textOf("a"), textOf("\r\n"), textOf("\n"),
                                              textOf("\r"), textOf("b")};
        QTest::newRow("family and skin tone")
            << QStringList{textOf("\xF0\x9F\x91\xA8\xF0\x9F\x8F\xBD\xE2\x80\x8D\xF0\x9F"
                                  "\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7"),
                           textOf("\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD")};
        QTest::newRow("flags after an emoji")
            << QStringList{textOf("\xF0\x9F\x8E\x89"), textOf("\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7"),
                           textOf("\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA"), textOf("\xF0\x9F\x87\xAE")};
        QTest::newRow("lone indicator, emoji, flag")
            << QStringList{textOf("\xF0\x9F\x87\xAB"), textOf("\xF0\x9F\x91\xA8"),
                           textOf("\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7")};
        QTest::newRow("emoji and CR LF next to Hindi")
            << QStringList{textOf("\xE0\xA4\xA8"),
                           textOf(" "),
                           textOf("\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD"),
                           textOf("\r\n"),
                           textOf("\xE0\xA4\xAE"),
                           textOf("\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9")};
        QTest::newRow("emoji next to Thai")
            << QStringList{textOf("\xE0\xB8\x81"), textOf("\xF0\x9F\x98\x80"), textOf("\r\n")};
        QTest::newRow("Hangul jamo")
            << QStringList{textOf("\xE1\x84\x80\xE1\x85\xA1\xE1\x86\xA8"), textOf("\xEA\xB0\x80")};
        QTest::newRow("repairs take marks")
            << QStringList{textOf("\xEF\xBF\xBD\xCC\x81"), textOf("\xEF\xBF\xBD")};
    }
    void charactersAreExtendedGraphemeClusters() {
        // The expected characters follow Unicode's extended grapheme cluster rules.
        QFETCH(QStringList, characters);
        readsCharacterByCharacter(characters);
    }

    void longClusterIsCutAfterTheCodePointLimit_data() {
        QTest::addColumn<QStringList>("characters");
        QTest::addColumn<int>("clusters"); // what ICU makes of the whole text
        const QString acute = textOf("\xCC\x81");
        const QString tone = textOf("\xF0\x9F\x8F\xBD");
        const QString jamo = textOf("\xE1\x84\x80");
        static_assert(codePointLimit == 31);
        QTest::newRow("letter and 30 marks") << QStringList{u'a' + acute.repeated(30)} << 1;
        QTest::newRow("letter and 31 marks") << QStringList{u'a' + acute.repeated(30), acute} << 1;
        QTest::newRow("letter and 62 marks")
            << QStringList{u'a' + acute.repeated(30), acute.repeated(31), acute} << 1;
        QTest::newRow("the rest of a cut cluster, then the next")
            << QStringList{u'a' + acute.repeated(30), acute.repeated(5), QStringLiteral("b")} << 2;
        // 62 UTF-16 units, but 31 code points; the cut falls between two surrogate pairs.
        QTest::newRow("emoji and 30 skin tones")
            << QStringList{textOf("\xF0\x9F\x91\x8D") + tone.repeated(30)} << 1;
        QTest::newRow("emoji and 31 skin tones")
            << QStringList{textOf("\xF0\x9F\x91\x8D") + tone.repeated(30), tone} << 1;
        QTest::newRow("Hangul jamo") << QStringList{jamo.repeated(31), jamo.repeated(2)} << 1;
        QTest::newRow("leading mark")
            << QStringList{acute.repeated(31), acute, QStringLiteral("\n")} << 2;
        // ICU joins these across the marks, and the second piece keeps what it joined.
        QTest::newRow("emoji joined after the cut")
            << QStringList{textOf("\xF0\x9F\x91\xA8") + acute.repeated(30),
                           acute.repeated(10) + textOf("\xE2\x80\x8D\xF0\x9F\x91\xA9"),
                           QStringLiteral("x")}
            << 2;
        QTest::newRow("consonants joined after the cut")
            << QStringList{textOf("\xE0\xA4\x95") + acute.repeated(30),
                           acute.repeated(10) + textOf("\xE0\xA5\x8D\xE0\xA4\x95"),
                           QStringLiteral("x")}
            << 2;
    }
    void longClusterIsCutAfterTheCodePointLimit() {
        QFETCH(QStringList, characters);
        QFETCH(int, clusters);
        QCOMPARE(clusterCount(characters.join(QString())), qsizetype(clusters));
        readsCharacterByCharacter(characters);
    }

    void cutClustersCountAtTheLimit() {
        // Clusters of 62 code points are two characters each. A last one of 71 is three more, so
        // the limit falls after 62 of its code points.
        const QByteArray acute = "\xCC\x81";
        const QByteArray pair = 'a' + acute.repeated(61);
        const QByteArray body = pair.repeated(limit / 2 - 1) + 'b' + acute.repeated(61);
        const QByteArray over = body + acute.repeated(9);
        QCOMPARE(characterCount(Utf8Decoder::decode(over)), limit + 1);
        QCOMPARE(clusterCount(Utf8Decoder::decode(over)), limit / 2);
        TempTree tree;
        tree.file(QStringLiteral("docs/over.txt"), over);
        tree.file(QStringLiteral("docs/full.txt"), body);
        const QString expected = QString::fromUtf8(body);
        QCOMPARE(readCall(QStringLiteral("Docs/over.txt"), docs(tree)),
                 content(QStringLiteral("Docs/over.txt"), expected, true));
        QCOMPARE(readCall(QStringLiteral("Docs/full.txt"), docs(tree)),
                 content(QStringLiteral("Docs/full.txt"), expected, false));
    }

    void endlessClusterIsReadOnlyAsFarAsItsCharacters() {
        // A writer sends "a" and then combining accents until the reader hangs up, 64 MiB at
        // most; reading everything would take that and more in memory.
        constexpr qint64 most = 64 * 1024 * 1024;
        int pair[2];
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
        std::atomic<qint64> written{0};
        std::thread writer([&written, fd = pair[1]] {
            const QByteArray block = QByteArray("\xCC\x81").repeated(32 * 1024);
            QByteArray next = 'a' + block;
            while (written < most) {
                qsizetype sent = 0;
                while (sent < next.size()) {
                    const ssize_t got =
                        ::send(fd, next.constData() + sent,
                               static_cast<std::size_t>(next.size() - sent), MSG_NOSIGNAL);
                    if (got < 0 && errno == EINTR) {
                        continue;
                    }
                    if (got <= 0) {
                        return; // the reader has closed its end
                    }
                    sent += got;
                    written += got;
                }
                next = block;
            }
            ::shutdown(fd, SHUT_WR);
        });
        // Peak memory from here on: the high-water mark goes back to what is resident now.
        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        const bool peakReset = clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
        clear.close();
        const std::optional<qint64> residentBefore = statusKiB(peakReset ? "VmRSS" : "VmHWM");

        FileReader::Text text;
        const int error = FileReader::readText(pair[0], limit, text);
        ::close(pair[0]);
        writer.join();
        ::close(pair[1]);
        const std::optional<qint64> peak = statusKiB("VmHWM");

        qInfo("%lld bytes sent before the reader stopped; peak memory grew by %lld KiB",
              static_cast<long long>(written.load()),
              residentBefore && peak ? static_cast<long long>(*peak - *residentBefore) : -1LL);
        QCOMPARE(error, 0);
        QVERIFY(text.truncated);
        QCOMPARE(text.content.size(), limit * codePointLimit);
        QCOMPARE(text.content, u'a' + QString(limit * codePointLimit - 1, QChar(0x0301)));
        // About 6 MiB are needed; the rest is what the socket and one read hold.
        QVERIFY2(
            written < 16 * 1024 * 1024,
            qPrintable(QStringLiteral("%1 bytes sent before the reader stopped").arg(written)));
        if (residentBefore && peak) {
            QVERIFY2(*peak - *residentBefore < 64 * 1024,
                     qPrintable(QStringLiteral("peak memory grew by %1 KiB while reading")
                                    .arg(*peak - *residentBefore)));
        }
    }

    void cutNextToIndicTextKeepsEmojiWhole() {
        TempTree tree;
        const QByteArray thumbs = "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD";
        tree.file(QStringLiteral("docs/hindi.txt"),
                  QByteArray("a").repeated(limit - 2) + "\xE0\xA4\xA8" + thumbs + "\r\n");
        QCOMPARE(
            readCall(QStringLiteral("Docs/hindi.txt"), docs(tree)),
            content(QStringLiteral("Docs/hindi.txt"),
                    QString(limit - 2, u'a') + textOf("\xE0\xA4\xA8") + QString::fromUtf8(thumbs),
                    true));
    }

    void lastCharacterKeepsItsCombiningMarks() {
        TempTree tree;
        const QByteArray body = QByteArray("a").repeated(limit - 1) + "e\xCC\x81\xCC\xA3\xCC\x81";
        tree.file(QStringLiteral("docs/exact.txt"), body);
        tree.file(QStringLiteral("docs/more.txt"), body + "x");
        const QString expected = QString::fromUtf8(body);
        QVERIFY(expected.endsWith(textOf("e\xCC\x81\xCC\xA3\xCC\x81")));
        QCOMPARE(readCall(QStringLiteral("Docs/exact.txt"), docs(tree)),
                 content(QStringLiteral("Docs/exact.txt"), expected, false));
        QCOMPARE(readCall(QStringLiteral("Docs/more.txt"), docs(tree)),
                 content(QStringLiteral("Docs/more.txt"), expected, true));
    }

    void cutNeverSplitsFlagsOrFamilies() {
        TempTree tree;
        // Four regional indicators are two flags; a fifth starts a third character.
        const QByteArray flags = "\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA";
        tree.file(QStringLiteral("docs/flags.txt"),
                  QByteArray("a").repeated(limit - 2) + flags + "\xF0\x9F\x87\xAE");
        QCOMPARE(readCall(QStringLiteral("Docs/flags.txt"), docs(tree)),
                 content(QStringLiteral("Docs/flags.txt"),
                         QString(limit - 2, u'a') + QString::fromUtf8(flags), true));

        const QByteArray family = "\xF0\x9F\x91\xA9\xF0\x9F\x8F\xBD\xE2\x80\x8D\xF0\x9F\x91\xA7";
        tree.file(QStringLiteral("docs/family.txt"),
                  QByteArray("a").repeated(limit - 1) + family + family);
        QCOMPARE(readCall(QStringLiteral("Docs/family.txt"), docs(tree)),
                 content(QStringLiteral("Docs/family.txt"),
                         QString(limit - 1, u'a') + QString::fromUtf8(family), true));
    }

    void invalidBytesComeBackAsReplacementCharacters() {
        TempTree tree;
        tree.file(QStringLiteral("docs/bad.txt"),
                  QByteArray("ok \xF0\x80\x80|\xED\xA0\x80|\xC0\xAF|\xF4\x90\x80\x80|\xE2\x82"));
        QCOMPARE(readCall(QStringLiteral("Docs/bad.txt"), docs(tree)),
                 content(QStringLiteral("Docs/bad.txt"),
                         QStringLiteral("ok \uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD|"
                                        "\uFFFD\uFFFD\uFFFD\uFFFD|\uFFFD"),
                         false));
    }

    void binaryFileIsCountedInReplacementCharacters() {
        TempTree tree;
        tree.file(QStringLiteral("docs/blob.bin"), QByteArray("\x80").repeated(limit + 1));
        QCOMPARE(readCall(QStringLiteral("Docs/blob.bin"), docs(tree)),
                 content(QStringLiteral("Docs/blob.bin"), QString(limit, QChar(0xFFFD)), true));
    }

    void limitCharacterAcrossTheReadChunk_data() {
        QTest::addColumn<qsizetype>("start"); // byte offset of the limit character
        QTest::addColumn<QByteArray>("character");
        QTest::addColumn<QByteArray>("tail");
        const QByteArray family =
            "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";
        const QByteArray flag = "\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7";
        for (const bool more : {false, true}) {
            const QByteArray tail = more ? QByteArray("\xE4\xB8\xAD tail") : QByteArray();
            const char* suffix = more ? " then more" : " at the end";
            QTest::addRow("emoji cut inside its first code point%s", suffix)
                << readChunk - 3 << family << tail;
            QTest::addRow("family cut at a joiner%s", suffix) << readChunk - 4 << family << tail;
            QTest::addRow("mark opens the next chunk%s", suffix)
                << readChunk - 1 << QByteArray("e\xCC\x81\xCC\xA3") << tail;
            QTest::addRow("second half of a flag in the next chunk%s", suffix)
                << readChunk - 4 << flag << tail;
            QTest::addRow("CR LF split by the chunk%s", suffix)
                << readChunk - 1 << QByteArray("\r\n") << tail;
        }
    }
    void limitCharacterAcrossTheReadChunk() {
        QFETCH(qsizetype, start);
        QFETCH(QByteArray, character);
        QFETCH(QByteArray, tail);
        const QByteArray before = charactersFilling(limit - 1, start);
        QCOMPARE(before.size(), start);
        const QByteArray bytes = before + character + tail;
        QVERIFY(bytes.size() > readChunk);
        TempTree tree;
        tree.file(QStringLiteral("docs/big.txt"), bytes);
        QCOMPARE(readCall(QStringLiteral("Docs/big.txt"), docs(tree)),
                 content(QStringLiteral("Docs/big.txt"), QString::fromUtf8(before + character),
                         !tail.isEmpty()));
    }

    void plainTextMeetsAJoiningCharacterAtTheLimit_data() {
        QTest::addColumn<QByteArray>("character"); // the limit-th character, after plain text
        QTest::addColumn<QByteArray>("tail");
        const struct {
            const char* name;
            QByteArray character;
        } cases[] = {
            {"ASCII letter and combining accent", "e\xCC\x81"},
            {"ASCII letter and zero width joiner", "e\xE2\x80\x8D"},
            {"CR LF", "\r\n"},
            {"emoji with skin tone", "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD"},
            {"precomposed letter and combining mark", "\xC3\xA9\xCC\xA3"},
            {"Cyrillic letter and breve", "\xD0\xB8\xCC\x86"},
            {"CJK and variation selector", "\xE4\xB8\xAD\xEF\xB8\x8F"},
            {"Devanagari consonants joined by a virama", "\xE0\xA4\x95\xE0\xA5\x8D\xE0\xA4\x95"},
            {"Devanagari consonant and spacing mark", "\xE0\xA4\x95\xE0\xA4\x83"},
            {"prepended mark and a digit", "\xD8\x80"
                                           "1"},
            {"Hangul jamo", "\xE1\x84\x80\xE1\x85\xA1"},
        };
        for (const auto& c : cases) {
            QTest::addRow("%s, then more", c.name) << c.character << QByteArray("xy");
            QTest::addRow("%s, at the end", c.name) << c.character << QByteArray();
        }
    }
    void plainTextMeetsAJoiningCharacterAtTheLimit() {
        QFETCH(QByteArray, character);
        QFETCH(QByteArray, tail);
        const QByteArray before = QByteArray("a").repeated(limit - 1);
        const QByteArray bytes = before + character + tail;
        QCOMPARE(reference(bytes, limit).content, QString::fromUtf8(before + character));
        TempTree tree;
        tree.file(QStringLiteral("docs/edge.txt"), bytes);
        QCOMPARE(readCall(QStringLiteral("Docs/edge.txt"), docs(tree)),
                 content(QStringLiteral("Docs/edge.txt"), QString::fromUtf8(before + character),
                         !tail.isEmpty()));
        // One fewer: the cut falls just before the joined character.
        const int fd =
            ::open(QFile::encodeName(tree.path(QStringLiteral("docs/edge.txt"))).constData(),
                   O_RDONLY | O_CLOEXEC);
        QVERIFY(fd >= 0);
        FileReader::Text text;
        const int error = FileReader::readText(fd, limit - 1, text);
        ::close(fd);
        QCOMPARE(error, 0);
        QCOMPARE(text.content, QString::fromLatin1(before));
        QVERIFY(text.truncated);
    }

    void everyBmpCharacterNextToPlainText() {
        // Each character between ASCII letters, doubled, and after CR and before LF: a boundary
        // placed where ICU has none shows up as a different count of characters.
        for (char32_t block = 0; block < 0x10000; block += 0x400) {
            QString text;
            for (char32_t c = block; c < block + 0x400; ++c) {
                if (QChar::isSurrogate(c)) {
                    continue;
                }
                const QChar ch(static_cast<char16_t>(c));
                text += u'a';
                text += ch;
                text += u'b';
                text += ch;
                text += ch;
                text += u'\r';
                text += ch;
                text += u'\n';
            }
            if (text.isEmpty()) {
                continue; // surrogates only
            }
            const QByteArray bytes = text.toUtf8();
            const qsizetype total = characterCount(Utf8Decoder::decode(bytes));
            for (qsizetype count : {total, total - 1, total / 2}) {
                FileReader::Text got;
                int error = -1;
                readPackets({bytes}, true, count, got, error);
                const FileReader::Text expected = reference(bytes, count);
                QVERIFY2(error == 0 && got.content == expected.content &&
                             got.truncated == expected.truncated,
                         qPrintable(QStringLiteral("block U+%1, limit %2 of %3")
                                        .arg(quint32(block), 4, 16, QLatin1Char('0'))
                                        .arg(count)
                                        .arg(total)));
            }
        }
    }

    void fifoIsAnErrorNotAHang() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        QCOMPARE(
            ::mkfifo(QFile::encodeName(tree.path(QStringLiteral("docs/pipe"))).constData(), 0600),
            0);
        QCOMPARE(readCall(QStringLiteral("Docs/pipe"), docs(tree)),
                 ToolCall::error(QStringLiteral("Could not read 'Docs/pipe': it is not a "
                                                "regular file.")));
    }

    void deviceIsAnErrorNotAHang_data() {
        QTest::addColumn<QString>("device");
        QTest::newRow("null") << QStringLiteral("/dev/null");
        QTest::newRow("zero") << QStringLiteral("/dev/zero");
        QTest::newRow("urandom") << QStringLiteral("/dev/urandom");
    }
    void deviceIsAnErrorNotAHang() {
        QFETCH(QString, device);
        // A device in a shared folder (here the folder is /dev itself) is refused at once.
        const QString name = device.mid(device.lastIndexOf(u'/') + 1);
        QCOMPARE(readCall(QStringLiteral("Dev/") + name,
                          {ToolCall::folder(QStringLiteral("Dev"), QStringLiteral("/dev"))}),
                 ToolCall::error(QStringLiteral("Could not read 'Dev/") + name +
                                 QStringLiteral("': it is not a regular file.")));
        // Through a link from a shared folder it is not reached at all.
        TempTree tree;
        tree.symlink(QStringLiteral("docs/device"), device);
        QCOMPARE(readCall(QStringLiteral("Docs/device"), docs(tree)),
                 ToolCall::error(QStringLiteral("Path leads outside the shared folders.")));
    }

    void unreadableFileIsAnError() {
        TempTree tree;
        tree.file(QStringLiteral("docs/secret.txt"), "secret");
        tree.chmod(QStringLiteral("docs/secret.txt"), 0);
        tree.chmod(QString(), 0755);
        const QList<SharedFolder> folders = docs(tree);
        const auto result = Unprivileged::run(
            tree.path(), [&] { return readCall(QStringLiteral("Docs/secret.txt"), folders); });
        if (!result) {
            QSKIP("running as root and cannot drop privileges; permissions do not apply");
        }
        QCOMPARE(*result, ToolCall::error(QStringLiteral("Could not read 'Docs/secret.txt': ") +
                                          FileSystemError::reasonFor(EACCES) + u'.'));
    }

    void fileThatCannotBeOpenedIsAnError() {
        // Works as root too: with no descriptor left the open itself fails.
        if (DescriptorLimit::sanitized()) {
            QSKIP("the sanitizers' checks need descriptors of their own");
        }
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"), "text");
        QJsonObject result;
        {
            DescriptorLimit noDescriptors;
            QVERIFY(noDescriptors.active());
            result = readCall(QStringLiteral("Docs/a.txt"), docs(tree));
        }
        QCOMPARE(result, ToolCall::error(QStringLiteral("Could not read 'Docs/a.txt': ") +
                                         FileSystemError::reasonFor(EMFILE) + u'.'));
        QCOMPARE(readCall(QStringLiteral("Docs/a.txt"), docs(tree)),
                 content(QStringLiteral("Docs/a.txt"), QStringLiteral("text"), false));
    }

    void failedReadIsAnError() {
        // Works as root too: a process's memory file is a regular file whose reads fail at
        // address 0, which is never mapped.
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Self"), QStringLiteral("/proc/self"))};
        QCOMPARE(readCall(QStringLiteral("Self/mem"), folders),
                 ToolCall::error(QStringLiteral("Could not read 'Self/mem': ") +
                                 FileSystemError::reasonFor(EIO) + u'.'));
    }

    void streamingEqualsDecodingWholeAndCutting() {
        std::mt19937 random(4711);
        for (int round = 0; round < 1500; ++round) {
            const QByteArray bytes = randomText(random);
            const QList<QByteArray> packets = randomPackets(random, bytes);
            const qsizetype total = characterCount(Utf8Decoder::decode(bytes));
            const qsizetype counts[] = {0,
                                        1,
                                        1 + static_cast<qsizetype>(random() % 50),
                                        std::max<qsizetype>(total - 1, 1),
                                        std::max<qsizetype>(total, 1),
                                        total + 1};
            QStringList hex;
            for (const QByteArray& packet : packets) {
                hex.append(QString::fromLatin1(packet.toHex(' ')));
            }
            const QString input =
                QStringLiteral("packets [%1]").arg(hex.join(QStringLiteral(" | ")));
            for (qsizetype count : counts) {
                if (!readsLikeWholeText(packets, bytes, count, round, input)) {
                    return;
                }
            }
        }
    }

    void plainTextEqualsDecodingWholeAndCutting() {
        std::mt19937 random(2718);
        for (int round = 0; round < 1500; ++round) {
            const QByteArray bytes = randomPlainText(random);
            const QList<QByteArray> packets = randomPackets(random, bytes);
            const qsizetype total = characterCount(Utf8Decoder::decode(bytes));
            const qsizetype counts[] = {0, 1 + static_cast<qsizetype>(random() % 50),
                                        1 + static_cast<qsizetype>(random() % 200),
                                        std::max<qsizetype>(total - 1, 1),
                                        std::max<qsizetype>(total, 1)};
            const QString input =
                QStringLiteral("text %1").arg(QString::fromLatin1(bytes.toHex(' ')));
            for (qsizetype count : counts) {
                if (!readsLikeWholeText(packets, bytes, count, round, input)) {
                    return;
                }
            }
        }
    }

    void longClustersEqualDecodingWholeAndCutting() {
        std::mt19937 random(31);
        for (int round = 0; round < 800; ++round) {
            const QByteArray bytes = randomLongClusters(random);
            const QList<QByteArray> packets = randomPackets(random, bytes);
            const qsizetype total = characterCount(Utf8Decoder::decode(bytes));
            const qsizetype counts[] = {0,
                                        1,
                                        1 + static_cast<qsizetype>(random() % 8),
                                        1 + static_cast<qsizetype>(random() % 30),
                                        std::max<qsizetype>(total - 1, 1),
                                        std::max<qsizetype>(total, 1),
                                        total + 1};
            const QString input =
                QStringLiteral("text %1").arg(QString::fromLatin1(bytes.toHex(' ')));
            for (qsizetype count : counts) {
                if (!readsLikeWholeText(packets, bytes, count, round, input)) {
                    return;
                }
            }
        }
    }

    void regularFileEqualsDecodingWholeAndCutting() {
        std::mt19937 random(1234);
        for (int round = 0; round < 300; ++round) {
            const QByteArray bytes = randomText(random);
            QTemporaryFile file;
            QVERIFY(file.open());
            QCOMPARE(file.write(bytes), bytes.size());
            QVERIFY(file.flush());
            for (qsizetype count = 0; count <= 50;
                 count += 1 + static_cast<qsizetype>(random() % 7)) {
                QVERIFY(::lseek(file.handle(), 0, SEEK_SET) == 0);
                FileReader::Text text;
                QCOMPARE(FileReader::readText(file.handle(), count, text), 0);
                const FileReader::Text expected = reference(bytes, count);
                QCOMPARE(text.content, expected.content);
                QCOMPARE(text.truncated, expected.truncated);
            }
        }
    }

    void stopsReadingOnceTheAnswerIsKnown() {
        // The input never ends; reading past what is needed would fail with EAGAIN.
        FileReader::Text text;
        int error = -1;
        QByteArray unread;
        readPackets({"abc", "\xCC\x81", "d", "efgh", "ijk"}, false, 3, text, error, &unread);
        QCOMPARE(error, 0);
        // The mark belongs to "c", and "d" shows that another character follows.
        QCOMPARE(text.content, textOf("abc\xCC\x81"));
        QVERIFY(text.truncated);
        QCOMPARE(unread, QByteArray("efghijk"));
    }

    void stopsReadingOnceALongClusterIsCut() {
        const QByteArray acute = "\xCC\x81";
        FileReader::Text text;
        int error = -1;
        QByteArray unread;
        // "a" and 30 accents, then the other 10; "b" shows that a third character follows.
        readPackets({'a' + acute.repeated(40), "b", "cd"}, false, 2, text, error, &unread);
        QCOMPARE(error, 0);
        QCOMPARE(text.content, QString::fromUtf8('a' + acute.repeated(40)));
        QVERIFY(text.truncated);
        QCOMPARE(unread, QByteArray("cd"));

        // The 32nd code point of a cluster begins the next character, wherever the cluster ends.
        FileReader::Text first;
        unread.clear();
        readPackets({'a' + acute.repeated(31), acute, "x"}, false, 1, first, error, &unread);
        QCOMPARE(error, 0);
        QCOMPARE(first.content, QString::fromUtf8('a' + acute.repeated(30)));
        QVERIFY(first.truncated);
        QCOMPARE(unread, acute + 'x');
    }

    void needsTheNextCharacterToKnowTheLastOneEnded() {
        // After "ab" the second character could still grow; without more input the reader
        // has to ask again, and here the source has nothing yet.
        FileReader::Text text;
        int error = -1;
        readPackets({"ab"}, false, 2, text, error);
        QCOMPARE(error, EAGAIN);
    }

    void endOfInputSettlesTheLastCharacter() {
        FileReader::Text text;
        int error = -1;
        readPackets({"a", "b\xF0\x9F\x87", "\xAB\xF0\x9F\x87\xB7"}, true, 3, text, error);
        QCOMPARE(error, 0);
        QCOMPARE(text.content, textOf("ab\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7"));
        QVERIFY(!text.truncated);
    }

    void zeroLimitGivesNothingButKnowsWhetherTextFollows() {
        FileReader::Text empty;
        int error = -1;
        readPackets({}, true, 0, empty, error);
        QCOMPARE(error, 0);
        QCOMPARE(empty.content, QString());
        QVERIFY(!empty.truncated);

        FileReader::Text some;
        readPackets({"\xCC\x81"}, false, 0, some, error);
        QCOMPARE(error, 0);
        QCOMPARE(some.content, QString());
        QVERIFY(some.truncated);
    }

    void readErrorIsReturned() {
        TempTree tree;
        tree.dir(QStringLiteral("dir"));
        const int fd =
            ::open(QFile::encodeName(tree.path(QStringLiteral("dir"))).constData(), O_RDONLY);
        QVERIFY(fd >= 0);
        FileReader::Text text;
        const int error = FileReader::readText(fd, 10, text);
        ::close(fd);
        QCOMPARE(error, EISDIR);
    }
};

QTEST_GUILESS_MAIN(FileReaderTest)
#include "tst_filereader.moc"
