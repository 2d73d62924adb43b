#include "SharedFolder.h"

#include <QJsonDocument>
#include <QTest>

class SharedFolderTest : public QObject {
    Q_OBJECT

private:
    static SharedFolder sample(std::optional<QByteArray> bookmark = std::nullopt) {
        return SharedFolder{
            QUuid::fromString(QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e")),
            QStringLiteral("Reports"), QStringLiteral("/home/u/Reports"), bookmark};
    }

private slots:
    void encodesWithoutBookmarkAsThreeKeys() {
        const QByteArray json = sample().toJson();
        QCOMPARE(
            json,
            QByteArray(
                R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"Reports","path":"/home/u/Reports"})"));
        const QJsonObject object = QJsonDocument::fromJson(json).object();
        QCOMPARE(object.size(), 3);
        QCOMPARE(SharedFolder::fromJsonObject(object), sample());
    }

    void encodesBookmarkAsBase64Last() {
        const SharedFolder folder = sample(QByteArray("\x00\x01\xfe\xff", 4));
        const QByteArray json = folder.toJson();
        QVERIFY(json.endsWith(R"(,"bookmark":"AAH+/w=="})"));
        QCOMPARE(SharedFolder::fromJsonObject(QJsonDocument::fromJson(json).object()), folder);
        QCOMPARE(folder.toJsonObject().value(QStringLiteral("bookmark")).toString(),
                 QStringLiteral("AAH+/w=="));
    }

    void readOnlyIsStoredOnlyWhenSet() {
        SharedFolder folder = sample(QByteArray("b"));
        folder.readOnly = true;
        const QByteArray json = folder.toJson();
        QVERIFY(json.endsWith(R"(,"bookmark":"Yg==","read_only":true})"));
        QCOMPARE(SharedFolder::fromJsonObject(QJsonDocument::fromJson(json).object()), folder);
        QCOMPARE(folder.toJsonObject().value(QStringLiteral("read_only")), QJsonValue(true));
        QVERIFY(!(folder == sample(QByteArray("b"))));
        // Records written before the flag existed load as read-write.
        QVERIFY(!SharedFolder::fromJsonObject(QJsonDocument::fromJson(sample().toJson()).object())
                     ->readOnly);
        QJsonObject stored = sample().toJsonObject();
        stored.insert(QStringLiteral("read_only"), false);
        QCOMPARE(SharedFolder::fromJsonObject(stored), sample());
        stored.insert(QStringLiteral("read_only"), QStringLiteral("yes"));
        QVERIFY(!SharedFolder::fromJsonObject(stored).has_value());
    }

    void idIsUpperCase36Characters() {
        const SharedFolder folder{QUuid::createUuid(), QStringLiteral("a"), QStringLiteral("/a"),
                                  std::nullopt};
        const QString id = folder.toJsonObject().value(QStringLiteral("id")).toString();
        QCOMPARE(id.size(), 36);
        QCOMPARE(id, id.toUpper());
        QCOMPARE(id.count(u'-'), 4);
    }

    void bookmarkOnlyDifferenceIsUnequalButSameIdentity() {
        const SharedFolder a = sample(QByteArray("one"));
        const SharedFolder b = sample(QByteArray("two"));
        const SharedFolder c = sample();
        QVERIFY(a != b);
        QVERIFY(a != c);
        QCOMPARE(a.id, b.id);
        QCOMPARE(sample(), sample());
        QCOMPARE(sample(QByteArray()), sample(QByteArray())); // present but empty
        QVERIFY(sample(QByteArray()) != sample());
    }

    void namesAndPathsCompareByCanonicalEquivalence() {
        SharedFolder decomposed = sample();
        SharedFolder composed = sample();
        decomposed.name = QStringLiteral("Cafe\u0301");
        decomposed.path = QStringLiteral("/home/u/Cafe\u0301");
        composed.name = QStringLiteral("Caf\u00e9");
        composed.path = QStringLiteral("/home/u/Caf\u00e9");
        QCOMPARE(decomposed, composed);
        composed.name = QStringLiteral("cafe\u0301");
        QVERIFY(decomposed != composed); // still case-sensitive
        composed.name = decomposed.name;
        composed.path = QStringLiteral("/home/u/Cafe");
        QVERIFY(decomposed != composed);
    }

    void samePathDifferentIdAndViceVersa() {
        SharedFolder moved = sample();
        moved.path = QStringLiteral("/elsewhere");
        QVERIFY(moved != sample());
        QCOMPARE(moved.id, sample().id);
    }

    void nullBookmarkDecodesAsAbsent() {
        const auto folder = SharedFolder::fromJsonObject(
            QJsonDocument::fromJson(
                R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"Reports","path":"/home/u/Reports","bookmark":null})")
                .object());
        QVERIFY(folder);
        QVERIFY(!folder->bookmark.has_value());
        QCOMPARE(*folder, sample());
    }

    void missingOrMistypedRequiredKeysDoNotDecode_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("no id") << QByteArray(R"({"name":"R","path":"/r"})");
        QTest::newRow("no name") << QByteArray(
            R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","path":"/r"})");
        QTest::newRow("no path") << QByteArray(
            R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"R"})");
        QTest::newRow("id number") << QByteArray(R"({"id":5,"name":"R","path":"/r"})");
        QTest::newRow("id not uuid")
            << QByteArray(R"({"id":"not-a-uuid-at-all-not-a-uuid-at-al","name":"R","path":"/r"})");
        QTest::newRow("name null") << QByteArray(
            R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":null,"path":"/r"})");
        QTest::newRow("bookmark number") << QByteArray(
            R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"R","path":"/r","bookmark":3})");
        QTest::newRow("bookmark not base64") << QByteArray(
            R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"R","path":"/r","bookmark":"!!"})");
    }
    void missingOrMistypedRequiredKeysDoNotDecode() {
        QFETCH(QByteArray, json);
        QVERIFY(!SharedFolder::fromJsonObject(QJsonDocument::fromJson(json).object()));
    }

    void lowerCaseIdDecodes() {
        const auto folder = SharedFolder::fromJsonObject(
            QJsonDocument::fromJson(
                R"({"id":"0f8fad5b-d9cb-469f-a165-70867728950e","name":"Reports","path":"/home/u/Reports"})")
                .object());
        QVERIFY(folder);
        QCOMPARE(*folder, sample());
    }

    void listRoundTripsInOrder() {
        const QList<SharedFolder> folders{
            sample(QByteArray("bm")),
            SharedFolder{QUuid::createUuid(), QStringLiteral("Фото \"x\"/y"),
                         QStringLiteral("/home/u/Фото"), std::nullopt}};
        const QByteArray json = SharedFolder::encodeList(folders);
        QVERIFY(json.startsWith("[{\"id\":"));
        QCOMPARE(SharedFolder::decodeList(json), std::optional<QList<SharedFolder>>(folders));
        QCOMPARE(SharedFolder::encodeList({}), QByteArray("[]"));
        QCOMPARE(SharedFolder::decodeList("[]"),
                 std::optional<QList<SharedFolder>>(QList<SharedFolder>{}));
    }

    void oneBadRecordFailsTheWholeList() {
        QVERIFY(!SharedFolder::decodeList(
            R"([{"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"R","path":"/r"},{"name":"x"}])"));
        QVERIFY(!SharedFolder::decodeList("{}"));
        QVERIFY(!SharedFolder::decodeList("not json"));
        QVERIFY(!SharedFolder::decodeList("[1]"));
        QVERIFY(!SharedFolder::decodeList(""));
    }
};

QTEST_GUILESS_MAIN(SharedFolderTest)
#include "tst_sharedfolder.moc"
