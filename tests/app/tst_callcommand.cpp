#include "TempTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

namespace {

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

Run run(const QStringList& arguments, const QString& workingDirectory = QString()) {
    QProcess process;
    if (!workingDirectory.isEmpty()) {
        process.setWorkingDirectory(workingDirectory);
    }
    process.start(QStringLiteral(QUILLMAR_COMPANION_BIN), arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    return Run{process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
               process.readAllStandardOutput(), process.readAllStandardError()};
}

QJsonObject parseLine(const QByteArray& out) {
    if (!out.endsWith('\n') || out.count('\n') != 1) {
        qWarning() << "not one line:" << out;
        return {};
    }
    return QJsonDocument::fromJson(out).object();
}

} // namespace

class CallCommandTest : public QObject {
    Q_OBJECT

    TempTree tree;

private slots:
    void initTestCase() {
        tree.file(QStringLiteral("Docs/a.txt"), "h\xc3\xa9llo \"quoted\"\n");
        tree.file(QStringLiteral("Docs/sub/report.md"), "# r");
        tree.file(QStringLiteral("Pics/x.png"), "png");
    }

    void printsOneCompactLineAndExitsZero() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("local_read_file"),
                           QStringLiteral(R"({"path":"Docs/a.txt"})"), QStringLiteral("--folder"),
                           QStringLiteral("Docs=") + tree.path(QStringLiteral("Docs"))});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        const QByteArray expected =
            "{\"content\":\"h\xc3\xa9llo "
            "\\\"quoted\\\"\\n\",\"path\":\"Docs/a.txt\",\"truncated\":false}\n";
        QCOMPARE(r.out, expected);
    }

    void errorObjectExitsOne() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("local_read_file"),
                           QStringLiteral(R"({"path":"Docs/../../etc/passwd"})"),
                           QStringLiteral("--folder=Docs=") + tree.path(QStringLiteral("Docs"))});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(parseLine(r.out),
                 (QJsonObject{{QStringLiteral("error"),
                               QStringLiteral("Path escapes the shared folder.")}}));
    }

    void foldersKeepTheirOrder() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("local_list_files"),
                           QStringLiteral("--folder"),
                           QStringLiteral("Pics=") + tree.path(QStringLiteral("Pics")),
                           QStringLiteral("--folder"),
                           QStringLiteral("Docs=") + tree.path(QStringLiteral("Docs"))});
        QCOMPARE(r.exitCode, 0);
        const QJsonArray items = parseLine(r.out).value(QStringLiteral("items")).toArray();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[0].toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Pics"));
        QCOMPARE(items[1].toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Docs"));
    }

    void relativeFolderPathIsTakenFromTheCurrentDirectory() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("local_list_files"),
                           QStringLiteral(R"({"path":"Docs/sub"})"), QStringLiteral("--folder"),
                           QStringLiteral("Docs=./Docs")},
                          tree.path());
        QCOMPARE(r.exitCode, 0);
        const QJsonObject result = parseLine(r.out);
        QCOMPARE(result.value(QStringLiteral("path")).toString(), QStringLiteral("Docs/sub"));
        QCOMPARE(result.value(QStringLiteral("count")).toInteger(), 1);
    }

    void withoutFoldersNothingIsShared() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("local_list_files")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray(R"({"count":0,"items":[],"path":""})"
                                   "\n"));
    }

    void unknownMethodExitsOne() {
        const Run r = run({QStringLiteral("call"), QStringLiteral("nope"), QStringLiteral("{}")});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, QByteArray(R"({"error":"Unknown method: nope"})"
                                   "\n"));
    }

    void badUsageExitsTwoWithOneLine_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("bad json") << QStringList{
            QStringLiteral("call"), QStringLiteral("local_list_files"), QStringLiteral("{nope")};
        QTest::newRow("json array") << QStringList{
            QStringLiteral("call"), QStringLiteral("local_list_files"), QStringLiteral("[1]")};
        QTest::newRow("unknown option") << QStringList{
            QStringLiteral("call"), QStringLiteral("local_list_files"), QStringLiteral("--fast")};
        QTest::newRow("folder without value") << QStringList{
            QStringLiteral("call"), QStringLiteral("local_list_files"), QStringLiteral("--folder")};
        QTest::newRow("folder without name")
            << QStringList{QStringLiteral("call"), QStringLiteral("local_list_files"),
                           QStringLiteral("--folder"), QStringLiteral("=/tmp")};
        QTest::newRow("folder without path")
            << QStringList{QStringLiteral("call"), QStringLiteral("local_list_files"),
                           QStringLiteral("--folder"), QStringLiteral("A=")};
        QTest::newRow("two params")
            << QStringList{QStringLiteral("call"), QStringLiteral("local_list_files"),
                           QStringLiteral("{}"), QStringLiteral("{}")};
    }
    void badUsageExitsTwoWithOneLine() {
        QFETCH(QStringList, arguments);
        const Run r = run(arguments);
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.out, QByteArray());
        QVERIFY(r.err.startsWith("quillmar-companion call: "));
        QCOMPARE(r.err.count('\n'), 1);
    }

    void missingMethodIsBadUsage() {
        const Run r = run({QStringLiteral("call")});
        QCOMPARE(r.exitCode, 2);
        QVERIFY(r.err.contains("METHOD"));
    }
};

QTEST_GUILESS_MAIN(CallCommandTest)
#include "tst_callcommand.moc"
