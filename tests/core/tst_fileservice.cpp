#include "FileService.h"
#include "JsonParams.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

namespace {

QJsonObject call(const QString& method, const QJsonObject& params,
                 const QList<SharedFolder>& folders) {
    return QCoro::waitFor(FileService::handle(method, params, folders));
}

QString errorOf(const QJsonObject& result) {
    return result.value(QStringLiteral("error")).toString();
}

} // namespace

class FileServiceTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QList<SharedFolder> folders;

private slots:
    void initTestCase() {
        tree.file(QStringLiteral("Reports/a.txt"), "alpha");
        tree.file(QStringLiteral("Photos/p.jpg"), "jpg");
        folders = {SharedFolder{QUuid::createUuid(), QStringLiteral("Reports"),
                                tree.path(QStringLiteral("Reports")), std::nullopt},
                   SharedFolder{QUuid::createUuid(), QStringLiteral("Photos"),
                                tree.path(QStringLiteral("Photos")), std::nullopt}};
    }

    void emptyMethodIsUnknownWithTrailingBlank() {
        const QJsonObject result = call(QString(), {}, folders);
        QCOMPARE(result,
                 (QJsonObject{{QStringLiteral("error"), QStringLiteral("Unknown method: ")}}));
    }

    void methodNamesAreCaseSensitive_data() {
        QTest::addColumn<QString>("method");
        QTest::newRow("upper") << QStringLiteral("LOCAL_LIST_FILES");
        QTest::newRow("mixed") << QStringLiteral("Local_Read_File");
        QTest::newRow("blank") << QStringLiteral(" local_search_files");
        QTest::newRow("other") << QStringLiteral("delete_everything");
    }
    void methodNamesAreCaseSensitive() {
        QFETCH(QString, method);
        const QJsonObject result =
            call(method, {{QStringLiteral("path"), QStringLiteral("Reports")}}, folders);
        QCOMPARE(result, (QJsonObject{{QStringLiteral("error"),
                                       QStringLiteral("Unknown method: ") + method}}));
    }

    void writingWithoutAnApproverIsRefused() {
        const QJsonObject result =
            call(QStringLiteral("local_write_file"),
                 {{QStringLiteral("path"), QStringLiteral("Reports/new.txt")},
                  {QStringLiteral("content"), QStringLiteral("x")}},
                 folders);
        QCOMPARE(result,
                 (QJsonObject{{QStringLiteral("error"),
                               QStringLiteral("Write was declined on the user's computer.")}}));
        QVERIFY(!QFile::exists(tree.path(QStringLiteral("Reports/new.txt"))));
    }

    void listWithNumericPathListsTheSharedFolders() {
        const QJsonObject result =
            call(QStringLiteral("local_list_files"), {{QStringLiteral("path"), 7}}, folders);
        QCOMPARE(result.value(QStringLiteral("path")).toString(), QString());
        QCOMPARE(result.value(QStringLiteral("count")).toInteger(), 2);
        const QJsonArray items = result.value(QStringLiteral("items")).toArray();
        QCOMPARE(items.at(0).toObject(),
                 (QJsonObject{{QStringLiteral("name"), QStringLiteral("Reports")},
                              {QStringLiteral("type"), QStringLiteral("folder")},
                              {QStringLiteral("size_bytes"), QJsonValue::Null},
                              {QStringLiteral("modified"), 0}}));
        QCOMPARE(items.at(1).toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Photos"));
    }

    void readWithEmptyPathNeedsAPath_data() {
        QTest::addColumn<QJsonObject>("params");
        QTest::newRow("empty") << QJsonObject{{QStringLiteral("path"), QString()}};
        QTest::newRow("missing") << QJsonObject{};
        QTest::newRow("bool") << QJsonObject{{QStringLiteral("path"), true}};
    }
    void readWithEmptyPathNeedsAPath() {
        QFETCH(QJsonObject, params);
        QCOMPARE(call(QStringLiteral("local_read_file"), params, folders),
                 (QJsonObject{{QStringLiteral("error"), QStringLiteral("A 'path' is required.")}}));
    }

    void searchWithoutQueryNeedsAQuery() {
        QCOMPARE(
            call(QStringLiteral("local_search_files"), {{QStringLiteral("query"), 3}}, folders),
            (QJsonObject{{QStringLiteral("error"), QStringLiteral("A 'query' is required.")}}));
        QCOMPARE(
            call(QStringLiteral("local_search_files"), {}, folders),
            (QJsonObject{{QStringLiteral("error"), QStringLiteral("A 'query' is required.")}}));
    }

    // Successes never carry "error"; failures carry nothing else.
    void resultEnvelopeShape_data() {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QJsonObject>("params");
        QTest::addColumn<bool>("fails");
        QTest::newRow("list root") << QStringLiteral("local_list_files") << QJsonObject{} << false;
        QTest::newRow("list folder")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Reports")}} << false;
        QTest::newRow("list missing")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Reports/nope")}} << true;
        QTest::newRow("list file")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Reports/a.txt")}} << true;
        QTest::newRow("list escape")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Reports/../..")}} << true;
        QTest::newRow("read") << QStringLiteral("local_read_file")
                              << QJsonObject{{QStringLiteral("path"),
                                              QStringLiteral("Reports/a.txt")}}
                              << false;
        QTest::newRow("read missing")
            << QStringLiteral("local_read_file")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Reports/b.txt")}} << true;
        QTest::newRow("read unknown folder")
            << QStringLiteral("local_read_file")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Nope/b.txt")}} << true;
        QTest::newRow("search") << QStringLiteral("local_search_files")
                                << QJsonObject{{QStringLiteral("query"), QStringLiteral("a")}}
                                << false;
        QTest::newRow("unknown") << QStringLiteral("x") << QJsonObject{} << true;
    }
    void resultEnvelopeShape() {
        QFETCH(QString, method);
        QFETCH(QJsonObject, params);
        QFETCH(bool, fails);
        const QJsonObject result = call(method, params, folders);
        if (fails) {
            QCOMPARE(result.keys(), QStringList{QStringLiteral("error")});
            QVERIFY(result.value(QStringLiteral("error")).isString());
            QVERIFY(!errorOf(result).isEmpty());
        } else {
            QVERIFY(!result.contains(QStringLiteral("error")));
        }
    }

    void exactToolErrorTexts() {
        QCOMPARE(
            errorOf(call(QStringLiteral("local_list_files"),
                         {{QStringLiteral("path"), QStringLiteral("Reports/nope/")}}, folders)),
            QStringLiteral("Path not found: Reports/nope/"));
        QCOMPARE(
            errorOf(call(QStringLiteral("local_list_files"),
                         {{QStringLiteral("path"), QStringLiteral("Reports/a.txt")}}, folders)),
            QStringLiteral("Path is a file, not a folder. Use local_read_file."));
        QCOMPARE(
            errorOf(call(QStringLiteral("local_read_file"),
                         {{QStringLiteral("path"), QStringLiteral("/Reports/none.txt")}}, folders)),
            QStringLiteral("File not found: /Reports/none.txt"));
        QCOMPARE(errorOf(call(QStringLiteral("local_read_file"),
                              {{QStringLiteral("path"), QStringLiteral("Reports/../Photos/p.jpg")}},
                              folders)),
                 QStringLiteral("Path escapes the shared folder."));
    }

    void unknownParameterKeysAreIgnored() {
        const QJsonObject result = call(QStringLiteral("local_read_file"),
                                        {{QStringLiteral("path"), QStringLiteral("Reports/a.txt")},
                                         {QStringLiteral("encoding"), QStringLiteral("latin1")},
                                         {QStringLiteral("offset"), 3}},
                                        folders);
        QCOMPARE(result.value(QStringLiteral("content")).toString(), QStringLiteral("alpha"));
    }

    void foldersAreOnlyThoseGiven() {
        const QJsonObject result =
            call(QStringLiteral("local_read_file"),
                 {{QStringLiteral("path"), QStringLiteral("Reports/a.txt")}}, {});
        QVERIFY(errorOf(result).startsWith(QStringLiteral("No shared folder named 'Reports'.")));
    }

    void checkedIntegerCasts() {
        const auto read = [](const QJsonValue& value) {
            return JsonParams::integer(QJsonObject{{QStringLiteral("n"), value}},
                                       QStringLiteral("n"));
        };
        QCOMPARE(read(5), std::optional<qint64>(5));
        QCOMPARE(read(-3), std::optional<qint64>(-3));
        QCOMPARE(read(2.0), std::optional<qint64>(2));
        QCOMPARE(read(2.5), std::nullopt);
        QCOMPARE(read(true), std::nullopt);
        QCOMPARE(read(QStringLiteral("5")), std::nullopt);
        QCOMPARE(read(QJsonValue::Null), std::nullopt);
        QCOMPARE(read(1e300), std::nullopt);
        const QJsonObject parsed = QJsonDocument::fromJson("{\"n\":9007199254740993}").object();
        QCOMPARE(JsonParams::integer(parsed, QStringLiteral("n")),
                 std::optional<qint64>(9007199254740993LL));
        QCOMPARE(JsonParams::integer({}, QStringLiteral("n")), std::nullopt);
        QCOMPARE(JsonParams::string({{QStringLiteral("s"), 1}}, QStringLiteral("s")), std::nullopt);
        QCOMPARE(JsonParams::string({{QStringLiteral("s"), QString()}}, QStringLiteral("s")),
                 std::optional<QString>(QString()));
    }
};

QTEST_GUILESS_MAIN(FileServiceTest)
#include "tst_fileservice.moc"
