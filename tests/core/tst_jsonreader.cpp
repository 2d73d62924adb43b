#include "JsonReader.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTest>

namespace {

const QString mark(QChar(0xfeff));
const QByteArray rawMark("\xef\xbb\xbf");

QByteArray withMarks(const char* text) {
    return QByteArray(text).replace("<M>", rawMark);
}

} // namespace

class JsonReaderTest : public QObject {
    Q_OBJECT

private slots:
    void marksOpeningStringsAreKept() {
        QJsonParseError error;
        const QJsonDocument document = JsonReader::parse(
            withMarks("{\"<M>key\":\"<M>value\",\"list\":[\"<M><M>two\",\"mid<M>dle\",\"<M>\"]}"),
            &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        const QJsonObject object = document.object();
        QCOMPARE(object.keys(),
                 (QStringList{QStringLiteral("list"), mark + QStringLiteral("key")}));
        QCOMPARE(object.value(mark + QStringLiteral("key")).toString(),
                 mark + QStringLiteral("value"));
        const QJsonArray list = object.value(QStringLiteral("list")).toArray();
        QCOMPARE(list.at(0).toString(), mark + mark + QStringLiteral("two"));
        QCOMPARE(list.at(1).toString(), QStringLiteral("mid") + mark + QStringLiteral("dle"));
        QCOMPARE(list.at(2).toString(), mark);
    }

    void textWithoutMarksParsesAsBefore() {
        const QByteArray text =
            "{\"a\":[1,2.5,\"caf\\u00e9\",null,true],\"b\":{\"c\":\"\\\"\\\\\"}}";
        QCOMPARE(JsonReader::parse(text), QJsonDocument::fromJson(text));
        QCOMPARE(JsonReader::parse(QString::fromUtf8(text)), QJsonDocument::fromJson(text));
    }

    void escapedMarksAndEscapedBackslashesStayAsTheyWere() {
        const QJsonObject object =
            JsonReader::parse(
                withMarks("{\"a\":\"\\ufeffx\",\"b\":\"\\\\<M>y\",\"c\":\"\\\\\\\\<M>\"}"))
                .object();
        QCOMPARE(object.value(QStringLiteral("a")).toString(), mark + u'x');
        QCOMPARE(object.value(QStringLiteral("b")).toString(), QStringLiteral("\\") + mark + u'y');
        QCOMPARE(object.value(QStringLiteral("c")).toString(), QStringLiteral("\\\\") + mark);
    }

    void leadingMarkOfTheTextIsAnEncodingSignature() {
        QJsonParseError error;
        const QJsonDocument document = JsonReader::parse(withMarks("<M>{\"a\":\"<M>b\"}"), &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(document.object().value(QStringLiteral("a")).toString(), mark + u'b');
    }

    void invalidTextStaysInvalid_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("mark between tokens") << withMarks("{<M>\"a\":1}");
        QTest::newRow("mark as a value") << withMarks("{\"a\":<M>1}");
        QTest::newRow("mark after a backslash") << withMarks("{\"a\":\"\\<M>\"}");
        QTest::newRow("two leading marks") << withMarks("<M><M>{\"a\":1}");
        QTest::newRow("unterminated") << withMarks("{\"a\":\"<M>");
    }

    void invalidTextStaysInvalid() {
        QFETCH(QByteArray, text);
        QJsonParseError error;
        JsonReader::parse(text, &error);
        QVERIFY(error.error != QJsonParseError::NoError);
    }

    void anyStringRoundTrips() {
        // Strings of marks, ASCII, non-ASCII and escapes in every order, written by Qt and read
        // back: the same characters.
        const QList<QString> pieces{mark,
                                    QStringLiteral("a"),
                                    QStringLiteral("\u00e9"),
                                    QStringLiteral("\\"),
                                    QStringLiteral("\""),
                                    QStringLiteral("\U0001F600"),
                                    QStringLiteral("\n")};
        QRandomGenerator random(20261121);
        for (int round = 0; round < 2000; ++round) {
            QString key;
            QString value;
            for (int i = random.bounded(6); i > 0; --i) {
                key += pieces.at(random.bounded(pieces.size()));
            }
            for (int i = random.bounded(6); i > 0; --i) {
                value += pieces.at(random.bounded(pieces.size()));
            }
            const QJsonObject object{{key, QJsonArray{value, QJsonObject{{value, key}}}}};
            const QJsonObject back = JsonReader::parse(QJsonDocument(object).toJson()).object();
            QCOMPARE(back.keys(), QStringList{key});
            const QJsonArray array = back.value(key).toArray();
            QCOMPARE(array.at(0).toString(), value);
            QCOMPARE(array.at(1).toObject().value(value).toString(), key);
        }
    }
};

QTEST_GUILESS_MAIN(JsonReaderTest)
#include "tst_jsonreader.moc"
