#include "FileService.h"
#include "FileWriter.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QCoroTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>
#include <QTimer>

#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Question {
    QString path;
    qint64 bytes;
};

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

class FileWriterTest : public QObject {
    Q_OBJECT

    std::unique_ptr<TempTree> tree;
    QList<SharedFolder> folders;
    QList<Question> asked;
    bool answer = true;
    WriteApprover approver;

    QJsonObject write(const QJsonObject& params) {
        return QCoro::waitFor(
            FileService::handle(QStringLiteral("local_write_file"), params, folders, approver));
    }

private slots:
    void init() {
        tree = std::make_unique<TempTree>();
        tree->dir(QStringLiteral("Reports"));
        tree->dir(QStringLiteral("Photos"));
        folders = {SharedFolder{QUuid::createUuid(), QStringLiteral("Reports"),
                                tree->path(QStringLiteral("Reports")), std::nullopt},
                   SharedFolder{QUuid::createUuid(), QStringLiteral("Photos"),
                                tree->path(QStringLiteral("Photos")), std::nullopt}};
        asked.clear();
        answer = true;
        approver = [this](QString path, qint64 bytes) -> QCoro::Task<bool> {
            asked.append(Question{path, bytes});
            co_return answer;
        };
    }

    void textIsWrittenAsUtf8() {
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/h.txt")},
                   {QStringLiteral("content"), QStringLiteral("h\u00e9llo")}});
        QCOMPARE(result, (QJsonObject{{QStringLiteral("success"), true},
                                      {QStringLiteral("path"), QStringLiteral("Reports/h.txt")},
                                      {QStringLiteral("bytes"), 6}}));
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/h.txt"))), QByteArray("h\xc3\xa9llo"));
        QCOMPARE(asked.size(), 1);
        QCOMPARE(asked[0].path, QStringLiteral("Reports/h.txt"));
        QCOMPARE(asked[0].bytes, 6);
    }

    void base64WinsOverContent() {
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/b.bin")},
                   {QStringLiteral("content_base64"), QStringLiteral("AAEC")},
                   {QStringLiteral("content"), QStringLiteral("ignored")}});
        QCOMPARE(result.value(QStringLiteral("bytes")).toInteger(), 3);
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/b.bin"))),
                 QByteArray("\x00\x01\x02", 3));
    }

    void invalidBase64FallsBackToContent() {
        QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/x.txt")},
                   {QStringLiteral("content_base64"), QStringLiteral("not base64!")},
                   {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(result.value(QStringLiteral("bytes")).toInteger(), 1);
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/x.txt"))), QByteArray("x"));

        result = write({{QStringLiteral("path"), QStringLiteral("Reports/empty.txt")},
                        {QStringLiteral("content_base64"), QStringLiteral("not base64!")}});
        QCOMPARE(result.value(QStringLiteral("bytes")).toInteger(), 0);
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/empty.txt"))), QByteArray());
    }

    void strictBase64_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("plain") << QStringLiteral("aGk=") << true << QByteArray("hi");
        QTest::newRow("two pads") << QStringLiteral("aA==") << true << QByteArray("h");
        QTest::newRow("empty") << QString() << true << QByteArray();
        QTest::newRow("no padding") << QStringLiteral("aGk") << false << QByteArray();
        QTest::newRow("line break") << QStringLiteral("AAEC\nAAEC") << false << QByteArray();
        QTest::newRow("blank") << QStringLiteral("AA EC") << false << QByteArray();
        QTest::newRow("url alphabet") << QStringLiteral("-_-_") << false << QByteArray();
        QTest::newRow("pad inside") << QStringLiteral("A=AA") << false << QByteArray();
        QTest::newRow("three pads") << QStringLiteral("A===") << false << QByteArray();
        QTest::newRow("non-latin") << QStringLiteral("\u00e9AAA") << false << QByteArray();
    }
    void strictBase64() {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        QFETCH(QByteArray, bytes);
        const auto decoded = FileWriter::decodeStrictBase64(text);
        QCOMPARE(decoded.has_value(), valid);
        if (valid) {
            QCOMPARE(*decoded, bytes);
        }
    }

    void nothingGivenWritesAnEmptyFileAfterApproval() {
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/none.txt")}});
        QCOMPARE(result.value(QStringLiteral("bytes")).toInteger(), 0);
        QCOMPARE(asked.size(), 1);
        QVERIFY(QFile::exists(tree->path(QStringLiteral("Reports/none.txt"))));
    }

    void missingParentsAreCreated() {
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/new/deep/file.txt")},
                   {QStringLiteral("content"), QStringLiteral("deep")}});
        QVERIFY(result.value(QStringLiteral("success")).toBool());
        QVERIFY(QFileInfo(tree->path(QStringLiteral("Reports/new/deep"))).isDir());
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/new/deep/file.txt"))),
                 QByteArray("deep"));
    }

    void escapingPathFailsBeforeAsking_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("error");
        QTest::newRow("parent") << QStringLiteral("Reports/../outside.txt")
                                << QStringLiteral("Path escapes the shared folder.");
        QTest::newRow("sibling") << QStringLiteral("Reports/../Photos/x")
                                 << QStringLiteral("Path escapes the shared folder.");
        QTest::newRow("unknown folder")
            << QStringLiteral("Music/x")
            << QStringLiteral("No shared folder named 'Music'. Prefix the path with a folder name. "
                              "Shared folders: Reports, Photos.");
        QTest::newRow("empty") << QString() << QStringLiteral("A 'path' is required.");
    }
    void escapingPathFailsBeforeAsking() {
        QFETCH(QString, path);
        QFETCH(QString, error);
        const QJsonObject result = write(
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(result, (QJsonObject{{QStringLiteral("error"), error}}));
        QVERIFY(asked.isEmpty());
        QVERIFY(!QFile::exists(tree->path(QStringLiteral("outside.txt"))));
        QVERIFY(!QFile::exists(tree->path(QStringLiteral("Photos/x"))));
    }

    void declinedWriteTouchesNothing() {
        tree->file(QStringLiteral("Reports/keep.txt"), "original");
        answer = false;
        QJsonObject result = write({{QStringLiteral("path"), QStringLiteral("Reports/keep.txt")},
                                    {QStringLiteral("content"), QStringLiteral("changed")}});
        QCOMPARE(result,
                 (QJsonObject{{QStringLiteral("error"),
                               QStringLiteral("Write was declined on the user's computer.")}}));
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/keep.txt"))), QByteArray("original"));

        result = write({{QStringLiteral("path"), QStringLiteral("Reports/a/b/new.txt")},
                        {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(result.keys(), QStringList{QStringLiteral("error")});
        QVERIFY(!QFileInfo::exists(tree->path(QStringLiteral("Reports/a"))));
    }

    void withoutAnApproverEveryWriteIsRefused() {
        tree->file(QStringLiteral("Reports/keep.txt"), "original");
        approver = {};
        const QJsonObject replaced =
            write({{QStringLiteral("path"), QStringLiteral("Reports/keep.txt")},
                   {QStringLiteral("content"), QStringLiteral("changed")}});
        QCOMPARE(replaced,
                 (QJsonObject{{QStringLiteral("error"),
                               QStringLiteral("Write was declined on the user's computer.")}}));
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/keep.txt"))), QByteArray("original"));
        const QJsonObject created =
            write({{QStringLiteral("path"), QStringLiteral("Reports/new.txt")},
                   {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(created.keys(), QStringList{QStringLiteral("error")});
        QVERIFY(!QFileInfo::exists(tree->path(QStringLiteral("Reports/new.txt"))));
    }

    void existingFileIsReplacedWhole() {
        tree->file(QStringLiteral("Reports/r.txt"), "a much longer original text");
        write({{QStringLiteral("path"), QStringLiteral("Reports/r.txt")},
               {QStringLiteral("content"), QStringLiteral("short")}});
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/r.txt"))), QByteArray("short"));
    }

    void directoryTargetFailsAfterApproval() {
        tree->dir(QStringLiteral("Reports/sub"));
        const QJsonObject result = write({{QStringLiteral("path"), QStringLiteral("Reports/sub")},
                                          {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(asked.size(), 1);
        QCOMPARE(result.keys(), QStringList{QStringLiteral("error")});
        QVERIFY(result.value(QStringLiteral("error"))
                    .toString()
                    .contains(QStringLiteral("Reports/sub")));
        QVERIFY(QFileInfo(tree->path(QStringLiteral("Reports/sub"))).isDir());
    }

    void parentThatIsAFileFailsClearly() {
        tree->file(QStringLiteral("Reports/plain"), "file");
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/plain/child.txt")}});
        QCOMPARE(result.keys(), QStringList{QStringLiteral("error")});
        QVERIFY(result.value(QStringLiteral("error"))
                    .toString()
                    .startsWith(QStringLiteral(
                        "Could not create the folders for 'Reports/plain/child.txt'")));
    }

    void readOnlyFolderFailsWithReadableError() {
        if (::geteuid() == 0) {
            QSKIP("root ignores permissions");
        }
        tree->dir(QStringLiteral("Reports/locked"));
        tree->chmod(QStringLiteral("Reports/locked"), 0500);
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/locked/x.txt")}});
        QCOMPARE(result.value(QStringLiteral("error")).toString(),
                 QStringLiteral("Could not write 'Reports/locked/x.txt': Permission denied."));
    }

    void fifoWithoutReaderDoesNotBlock() {
        const QString fifo = tree->path(QStringLiteral("Reports/pipe"));
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        const QJsonObject result = write({{QStringLiteral("path"), QStringLiteral("Reports/pipe")},
                                          {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(result.keys(), QStringList{QStringLiteral("error")});
    }

    // The approval may take its time: the call waits without blocking the event loop.
    void suspendedApprovalKeepsTheLoopRunning() {
        bool timerRan = false;
        approver = [&](QString, qint64) -> QCoro::Task<bool> {
            QTimer::singleShot(0, [&] { timerRan = true; });
            QTimer delay;
            delay.setSingleShot(true);
            delay.start(50);
            co_await delay;
            co_return true;
        };
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("Reports/later.txt")},
                   {QStringLiteral("content"), QStringLiteral("ok")}});
        QVERIFY(timerRan);
        QVERIFY(result.value(QStringLiteral("success")).toBool());
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/later.txt"))), QByteArray("ok"));
    }

    void pathOfSixtyThousandFoldersFailsWithoutMakingAny() {
        // Once a crash (one level of recursion per folder); now refused as the system would,
        // before a single folder is made.
        QString path = QStringLiteral("Reports");
        for (int i = 0; i < 60000; ++i) {
            path += QStringLiteral("/a");
        }
        path += QStringLiteral("/x.txt");
        const QJsonObject result = write(
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(result, (QJsonObject{{QStringLiteral("error"),
                                       QStringLiteral("Could not write '") + path + u'\'' +
                                           QStringLiteral(": File name too long.")}}));
        QVERIFY(!QFileInfo::exists(tree->path(QStringLiteral("Reports/a"))));
    }

    void deepestPossibleFolderIsMadeLevelByLevel() {
        // As deep as a path can name (the whole path under 4096 bytes): every folder is made.
        QString inner;
        while (tree->path(QStringLiteral("Reports/")).size() + inner.size() + 20 < 4000) {
            inner += QStringLiteral("d/");
        }
        const QJsonObject result =
            write({{QStringLiteral("path"),
                    QStringLiteral("Reports/") + inner + QStringLiteral("deep.txt")},
                   {QStringLiteral("content"), QStringLiteral("deep")}});
        QVERIFY2(result.value(QStringLiteral("success")).toBool(),
                 qPrintable(result.value(QStringLiteral("error")).toString()));
        QCOMPARE(
            contents(tree->path(QStringLiteral("Reports/") + inner + QStringLiteral("deep.txt"))),
            QByteArray("deep"));
    }

    void pathIsEchoedAsSent() {
        const QJsonObject result =
            write({{QStringLiteral("path"), QStringLiteral("/Reports//echo.txt/")},
                   {QStringLiteral("content"), QStringLiteral("e")}});
        QCOMPARE(result.value(QStringLiteral("path")).toString(),
                 QStringLiteral("/Reports//echo.txt/"));
        QCOMPARE(contents(tree->path(QStringLiteral("Reports/echo.txt"))), QByteArray("e"));
        QCOMPARE(asked[0].path, QStringLiteral("/Reports//echo.txt/"));
    }
};

QTEST_GUILESS_MAIN(FileWriterTest)
#include "tst_filewriter.moc"
