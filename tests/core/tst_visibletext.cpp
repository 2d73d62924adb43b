#include "VisibleText.h"

#include <QTest>

#include <random>

namespace {

QString units(std::initializer_list<char16_t> list) {
    QString text;
    for (const char16_t unit : list) {
        text.append(QChar(unit));
    }
    return text;
}

QString code(char16_t c) {
    return QStringLiteral("\u27e8U+%1\u27e9").arg(int(c), 4, 16, QChar(u'0')).toUpper();
}

// Would a terminal or a text layout act on this unit instead of showing it?
bool acted(char16_t c) {
    return (c < 0x20 && c != u'\n') || (c >= 0x7f && c <= 0x9f) || c == 0x061c || c == 0x200e ||
           c == 0x200f || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) ||
           c == 0x2028 || c == 0x2029;
}

} // namespace

class VisibleTextTest : public QObject {
    Q_OBJECT

private slots:
    void c0ControlsBecomeTheirPictures() {
        for (char16_t c = 0; c < 0x20; ++c) {
            if (c == u'\n') {
                continue;
            }
            QCOMPARE(VisibleText::escaped(units({u'a', c, u'b'})),
                     units({u'a', char16_t(0x2400 + c), u'b'}));
        }
        QCOMPARE(VisibleText::escaped(u"\x1b[2J\rBEL\a\bTAB\t"),
                 QStringLiteral("\u241b[2J\u240dBEL\u2407\u2408TAB\u2409"));
        QCOMPARE(VisibleText::escaped(QStringView(u"a\0b", 3)), QStringLiteral("a\u2400b"));
    }

    void deleteBecomesItsPicture() {
        QCOMPARE(VisibleText::escaped(u"x\x7f"), QStringLiteral("x\u2421"));
    }

    void theLineFeedStaysALineBreak() {
        QCOMPARE(VisibleText::escaped(u"Docs/two\nlines.txt"),
                 QStringLiteral("Docs/two\nlines.txt"));
        QCOMPARE(VisibleText::escaped(u"\n\r\n"), QStringLiteral("\n\u240d\n"));
    }

    void c1ControlsBecomeCodes() {
        for (char16_t c = 0x80; c <= 0x9f; ++c) {
            QCOMPARE(VisibleText::escaped(units({u'a', c, u'b'})), u'a' + code(c) + u'b');
        }
        // CSI, which some terminals obey as ESC [.
        QCOMPARE(VisibleText::escaped(u"\x9b"
                                      "2J"),
                 QStringLiteral("\u27e8U+009B\u27e92J"));
    }

    void bidirectionalFormattingBecomesCodes_data() {
        QTest::addColumn<int>("unit");
        for (const char16_t c : {0x061c, 0x200e, 0x200f, 0x202a, 0x202b, 0x202c, 0x202d, 0x202e,
                                 0x2066, 0x2067, 0x2068, 0x2069}) {
            QTest::addRow("U+%04X", unsigned(c)) << int(c);
        }
    }
    void bidirectionalFormattingBecomesCodes() {
        QFETCH(int, unit);
        const QString text = QStringLiteral("report") + QChar(unit) + QStringLiteral("txt.exe");
        QCOMPARE(VisibleText::escaped(text),
                 QStringLiteral("report") + code(char16_t(unit)) + QStringLiteral("txt.exe"));
    }

    void rightToLeftOverrideIsSpelledOut() {
        QCOMPARE(VisibleText::escaped(u"Docs/\u202etxt.exe"),
                 QStringLiteral("Docs/\u27e8U+202E\u27e9txt.exe"));
    }

    void lineAndParagraphSeparatorsBecomeCodes() {
        QCOMPARE(VisibleText::escaped(u"a\u2028b\u2029c"),
                 QStringLiteral("a\u27e8U+2028\u27e9b\u27e8U+2029\u27e9c"));
    }

    void ordinaryTextIsUntouched_data() {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << QString();
        QTest::newRow("path") << QStringLiteral("Docs/a.txt");
        QString printable;
        for (char16_t c = 0x20; c < 0x7f; ++c) {
            printable.append(QChar(c));
        }
        QTest::newRow("printable ascii") << printable;
        QTest::newRow("markup") << QStringLiteral("<b>x</b> &amp; \"q\"");
        QTest::newRow("latin") << QStringLiteral("Résumé Ünïcode ÿ \u00a0nbsp");
        QTest::newRow("cjk") << QStringLiteral("報告/資料.txt");
        QTest::newRow("hebrew and arabic letters")
            << QStringLiteral("\u05e9\u05dc\u05d5\u05dd/\u0645\u0631\u062d\u0628\u0627.txt");
        QTest::newRow("combining marks") << QStringLiteral("e\u0301 a\u0308\u0323 \u0915\u093f");
        QTest::newRow("zwj and zwnj in indic names")
            << QStringLiteral("\u0915\u094d\u200d\u0937 \u0915\u094d\u200c\u0937");
        QTest::newRow("emoji zwj family") << QStringLiteral("👨‍👩‍👧‍👦.png");
        QTest::newRow("emoji with skin tone and variation selector")
            << QStringLiteral("👍🏽 ❤️ 🏳️‍🌈");
        QTest::newRow("flag with tag characters") << QStringLiteral("🏴󠁧󠁢󠁳󠁣󠁴󠁿");
        QTest::newRow("next to escaped ranges")
            << units({0xa0, 0x061b, 0x061d, 0x200c, 0x200d, 0x2027, 0x202f, 0x2065, 0x206a, 0x2400,
                      0x241b, 0x27e8, 0xfffd});
        QTest::newRow("a code typed out") << QStringLiteral("\u27e8U+202E\u27e9");
    }
    void ordinaryTextIsUntouched() {
        QFETCH(QString, text);
        QCOMPARE(VisibleText::escaped(text), text);
    }

    void unpairedSurrogatesBecomeReplacementCharacters_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("shown");
        QTest::newRow("high at the end") << units({u'a', 0xd83d}) << units({u'a', 0xfffd});
        QTest::newRow("high before a letter") << units({0xd83d, u'a'}) << units({0xfffd, u'a'});
        QTest::newRow("low alone") << units({u'a', 0xde00, u'b'}) << units({u'a', 0xfffd, u'b'});
        QTest::newRow("reversed pair") << units({0xde00, 0xd83d}) << units({0xfffd, 0xfffd});
        QTest::newRow("two highs then a low")
            << units({0xd83d, 0xd83d, 0xde00}) << units({0xfffd, 0xd83d, 0xde00});
        QTest::newRow("pair kept, lone high before a control")
            << units({0xd83d, 0xde00, 0xd83d, 0x1b}) << units({0xd83d, 0xde00, 0xfffd, 0x241b});
    }
    void unpairedSurrogatesBecomeReplacementCharacters() {
        QFETCH(QString, text);
        QFETCH(QString, shown);
        QCOMPARE(VisibleText::escaped(text), shown);
    }

    void aSpoofingPathIsShownWhole() {
        QCOMPARE(VisibleText::escaped(u"Docs/\x1b[2J\x1b[H\rok.txt\u202e\n\u2066gpj.exe"),
                 QStringLiteral("Docs/\u241b[2J\u241b[H\u240dok.txt\u27e8U+202E\u27e9\n"
                                "\u27e8U+2066\u27e9gpj.exe"));
    }

    void nothingActedOnSurvives() {
        // Any mix of units: what comes out has nothing a terminal or layout would obey, no
        // unpaired surrogate, and every ordinary unit of the input in its order.
        static const char16_t pool[] = {
            0x00,   0x07,   0x0a,   0x0d,   0x1b,   0x1f,   u' ',   u'a',   u'<',   0x7f,
            0x80,   0x85,   0x9b,   0x9f,   0xa0,   0x061c, 0x200c, 0x200d, 0x200e, 0x202e,
            0x2066, 0x2069, 0x2028, 0x2029, 0x0301, 0xd83d, 0xde00, 0xdbff, 0xdfff, 0xfffd};
        std::mt19937 random(7);
        for (int round = 0; round < 20000; ++round) {
            QString text;
            const unsigned length = random() % 16;
            for (unsigned i = 0; i < length; ++i) {
                text.append(QChar(pool[random() % std::size(pool)]));
            }
            const QString shown = VisibleText::escaped(text);
            for (qsizetype i = 0; i < shown.size(); ++i) {
                const QChar c = shown[i];
                QVERIFY2(!acted(c.unicode()), qPrintable(shown));
                if (c.isHighSurrogate()) {
                    QVERIFY(i + 1 < shown.size() && shown[i + 1].isLowSurrogate());
                    ++i;
                } else {
                    QVERIFY(!c.isLowSurrogate());
                }
            }
            qsizetype next = 0;
            for (const QChar c : text) {
                if (!acted(c.unicode()) && !c.isSurrogate()) {
                    next = shown.indexOf(c, next);
                    QVERIFY2(next >= 0, qPrintable(shown));
                    ++next;
                }
            }
            QCOMPARE(shown.count(u'\n'), text.count(u'\n'));
        }
    }
};

QTEST_APPLESS_MAIN(VisibleTextTest)
#include "tst_visibletext.moc"
