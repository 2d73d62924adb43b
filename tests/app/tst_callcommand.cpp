#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "TempTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

namespace {

using Run = CommandRun;

// Each run gets `sandbox` as its home: `call` reads the shared folders saved there.
Run run(const CompanionSandbox& sandbox, const QStringList& arguments,
        const QString& workingDirectory = QString()) {
    return CommandRun::run(QStringLiteral(QUILLMAR_COMPANION_BIN), arguments, sandbox.environment(),
                           workingDirectory);
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
    CompanionSandbox sandbox;

    Run run(const QStringList& arguments, const QString& workingDirectory = QString()) const {
        return ::run(sandbox, arguments, workingDirectory);
    }

private slots:
    void initTestCase() {
        QVERIFY(sandbox.isValid());
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

    void savedFoldersAreSharedWhenNoneAreGiven() {
        CompanionSandbox own;
        QVERIFY(own.isValid());
        const Run added = ::run(own, {QStringLiteral("folders"), QStringLiteral("add"),
                                      tree.path(QStringLiteral("Pics"))});
        QCOMPARE(added.exitCode, 0);
        QCOMPARE(added.out, QByteArray("Pics\n"));

        Run r = ::run(own, {QStringLiteral("call"), QStringLiteral("local_read_file"),
                            QStringLiteral(R"({"path":"Pics/x.png"})")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(parseLine(r.out).value(QStringLiteral("content")).toString(),
                 QStringLiteral("png"));

        // Folders given on the command line replace the saved ones for that call.
        r = ::run(own, {QStringLiteral("call"), QStringLiteral("local_list_files"),
                        QStringLiteral("--folder"),
                        QStringLiteral("Docs=") + tree.path(QStringLiteral("Docs"))});
        QCOMPARE(r.exitCode, 0);
        const QJsonArray items = parseLine(r.out).value(QStringLiteral("items")).toArray();
        QCOMPARE(items.size(), 1);
        QCOMPARE(items[0].toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Docs"));

        // Another home knows nothing of them.
        r = run({QStringLiteral("call"), QStringLiteral("local_list_files")});
        QCOMPARE(parseLine(r.out).value(QStringLiteral("count")).toInteger(), 0);
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
