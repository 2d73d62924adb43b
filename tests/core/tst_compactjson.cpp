#include "CompactJson.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <limits>
#include <random>

namespace {

// What QJsonDocument writes for a value: the object {"v": value} without its frame.
QByteArray qtWrites(const QJsonValue& value) {
    const QByteArray whole =
        QJsonDocument(QJsonObject{{QStringLiteral("v"), value}}).toJson(QJsonDocument::Compact);
    return whole.mid(5, whole.size() - 6);
}

QString randomText(std::mt19937& random) {
    // Every kind of UTF-16 unit: ASCII with its escapes, 2- and 3-byte UTF-8, pairs, and lone
    // or reversed surrogates.
    static const char16_t units[] = {0x00,   0x01,   0x08,   0x09,   0x0A,   0x0C,   0x0D,   0x1F,
                                     u' ',   u'"',   u'/',   u'\\',  u'a',   u'~',   0x7F,   0x80,
                                     0xE9,   0x7FF,  0x800,  0x2028, 0x4E2D, 0xD7FF, 0xD800, 0xDBFF,
                                     0xDC00, 0xDFFF, 0xE000, 0xFEFF, 0xFFFD, 0xFFFF};
    QString text;
    const unsigned length = random() % 24;
    for (unsigned i = 0; i < length; ++i) {
        text.append(QChar(units[random() % std::size(units)]));
    }
    return text;
}

} // namespace

class CompactJsonTest : public QObject {
    Q_OBJECT

private slots:
    void stringsAreWrittenAsQtWritesThem() {
        std::mt19937 random(99);
        for (int round = 0; round < 20000; ++round) {
            const QString text = randomText(random);
            CompactJson out(1); // grows from almost nothing
            out.string(text);
            QCOMPARE(out.take(), qtWrites(text));
        }
    }

    void asciiStringsAreWrittenAsQtWritesThem() {
        QByteArray all;
        for (int c = 1; c < 0x80; ++c) {
            all.append(char(c));
        }
        CompactJson out;
        out.asciiString(all);
        out.asciiString(QByteArray());
        QCOMPARE(out.take(), qtWrites(QString::fromLatin1(all)) + qtWrites(QString()));
    }

    void integersAreWrittenAsQtWritesThem() {
        std::mt19937_64 random(7);
        QList<qint64> values = {0,
                                -1,
                                1,
                                -631152000,
                                qint64(1) << 40,
                                qint64(1) << 53,
                                (qint64(1) << 53) + 1,
                                std::numeric_limits<qint64>::max(),
                                std::numeric_limits<qint64>::min()};
        for (int i = 0; i < 1000; ++i) {
            values.append(qint64(random()) >> (random() % 64));
        }
        for (const qint64 value : std::as_const(values)) {
            CompactJson out;
            out.integer(value);
            QCOMPARE(out.take(), qtWrites(QJsonValue(value)));
        }
    }
};

QTEST_GUILESS_MAIN(CompactJsonTest)
#include "tst_compactjson.moc"
