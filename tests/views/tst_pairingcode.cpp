#include "PairingCode.h"

#include <QTest>

class PairingCodeTest : public QObject {
    Q_OBJECT

private slots:
    void normalise_data() {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("code");
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("lower case") << QStringLiteral("abc") << QStringLiteral("ABC");
        QTest::newRow("pasted with separators")
            << QStringLiteral("ab-12 cd34") << QStringLiteral("AB12CD34");
        QTest::newRow("punctuation") << QStringLiteral("a.b,c;d:e!f?") << QStringLiteral("ABCDEF");
        QTest::newRow("ninth dropped") << QStringLiteral("abcdefghi") << QStringLiteral("ABCDEFGH");
        QTest::newRow("ninth dropped after filtering")
            << QStringLiteral("ab-cd-ef-gh-ij") << QStringLiteral("ABCDEFGH");
        QTest::newRow("whitespace") << QStringLiteral(" \tab\n12 ") << QStringLiteral("AB12");
        QTest::newRow("full upper-casing") << QStringLiteral("straße") << QStringLiteral("STRASSE");
        QTest::newRow("accented letters") << QStringLiteral("éa1") << QStringLiteral("ÉA1");
        QTest::newRow("decomposed accent stays with its letter")
            << QStringLiteral("e\u0301x") << QStringLiteral("E\u0301X");
        QTest::newRow("other scripts' letters and digits")
            << QStringLiteral("ж٣") << QStringLiteral("Ж٣");
        QTest::newRow("symbols and emoji") << QStringLiteral("a€b😀c") << QStringLiteral("ABC");
    }

    void normalise() {
        QFETCH(QString, typed);
        QFETCH(QString, code);
        QCOMPARE(PairingCode::normalise(typed), code);
        // Normalising is stable.
        QCOMPARE(PairingCode::normalise(code), code);
    }

    void lengthCountsCharacters() {
        QCOMPARE(PairingCode::length(QString()), 0);
        QCOMPARE(PairingCode::length(QStringLiteral("ABCDE")), 5);
        QCOMPARE(PairingCode::length(QStringLiteral("E\u0301XAMPL")), 6);
        QVERIFY(!PairingCode::isComplete(QStringLiteral("ABCDE")));
        QVERIFY(PairingCode::isComplete(QStringLiteral("ABCDEF")));
        QCOMPARE(PairingCode::minimumLength(), 6);
        QCOMPARE(PairingCode::maximumLength(), 8);
    }
};

QTEST_GUILESS_MAIN(PairingCodeTest)
#include "tst_pairingcode.moc"
