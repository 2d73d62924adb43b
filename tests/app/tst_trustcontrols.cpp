// What lets the user see and undo what agents do, end to end: the headless companion against
// the dev service, real files in a throwaway home. A read-only folder refuses writes over the
// bridge; every call shows in the activity; an emptied file and a write cut short by the file
// size limit are both put back byte for byte with `restore`; a file changed since is left
// alone; a pause closes the bridge and outlasts a restart.

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "DevServiceProcess.h"
#include "HttpJson.h"
#include "LineProcess.h"
#include "TempTree.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QByteArray notes = "first line\nsecond line\n";

QByteArray pattern(qsizetype size) {
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i) {
        bytes[i] = char((i * 7 + i / 251) & 0xff);
    }
    return bytes;
}

} // namespace

class TrustControlsTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir serviceDir;
    std::unique_ptr<CompanionSandbox> sandbox;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<HttpJson> agent;
    std::unique_ptr<LineProcess> headless;
    QString deviceId;

    CommandRun companion(const QStringList& arguments) {
        return CommandRun::run(companionBin, arguments, sandbox->environment());
    }

    // `prefix` runs the companion under another program (a resource limit).
    bool startHeadless(const QStringList& prefix = {}, const QString& until = connected) {
        stopHeadless();
        headless = std::make_unique<LineProcess>();
        QStringList arguments = prefix.mid(1);
        arguments << (prefix.isEmpty() ? QStringList() : QStringList{companionBin})
                  << QStringLiteral("--headless");
        headless->start(prefix.isEmpty() ? companionBin : prefix.first(), arguments,
                        sandbox->environment());
        return headless->waitFor(until) >= 0;
    }

    void stopHeadless() {
        if (headless) {
            headless->terminate();
        }
    }

    bool online() {
        const QJsonArray list = agent->get(QStringLiteral("/api/v1/agent/devices"))
                                    .json()
                                    .value(QStringLiteral("devices"))
                                    .toArray();
        return !list.isEmpty() && list[0].toObject().value(QStringLiteral("online")).toBool();
    }

    // The result frame of one call through the agent API, without type and req_id.
    QJsonObject call(const QString& method, const QJsonObject& params) {
        const HttpJson::Reply reply = agent->post(
            QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
            QJsonObject{{QStringLiteral("method"), method}, {QStringLiteral("params"), params}});
        if (reply.status != 200) {
            return QJsonObject{{QStringLiteral("http"), reply.status}};
        }
        QJsonObject frame = reply.json();
        frame.remove(QStringLiteral("type"));
        frame.remove(QStringLiteral("req_id"));
        return frame;
    }

    QJsonObject write(const QString& path, const QJsonObject& content) {
        QJsonObject params = content;
        params.insert(QStringLiteral("path"), path);
        return call(QStringLiteral("local_write_file"), params);
    }

    // The id of the newest kept version, after checking its line in `history`.
    QString newestVersion(const QString& agentPath, const QString& size) {
        const CommandRun r = companion({QStringLiteral("history")});
        if (r.exitCode != 0) {
            return QString();
        }
        const QStringList fields = QString::fromUtf8(r.out).section(u'\n', 0, 0).split(u'\t');
        if (fields.size() != 4 || fields[2] != agentPath || fields[3] != size) {
            qWarning() << "history:" << r.out;
            return QString();
        }
        return fields[0];
    }

    QStringList activityLines() {
        const CommandRun r = companion({QStringLiteral("activity")});
        return QString::fromUtf8(r.out).split(u'\n', Qt::SkipEmptyParts);
    }

private slots:
    void initTestCase() {
        sandbox = std::make_unique<CompanionSandbox>(CompanionSandbox::Bus::None);
        QVERIFY(sandbox->isValid());
        QVERIFY(serviceDir.isValid());
        tree.file(QStringLiteral("Docs/notes.txt"), notes);
        tree.file(QStringLiteral("Docs/big.bin"), pattern(10000));
        tree.file(QStringLiteral("Ref/manual.txt"), "do not change");

        service =
            std::make_unique<DevServiceProcess>(QStringLiteral(QUILLMAR_DEVSERVICE_BIN),
                                                serviceDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        agent = std::make_unique<HttpJson>(service->baseUrl());
        sandbox->setApiBase(service->baseUrl());

        const HttpJson::Reply code =
            agent->post(QStringLiteral("/api/v1/agent/pairing-codes"), QJsonObject());
        QCOMPARE(code.status, 201);
        QCOMPARE(companion(
                     {QStringLiteral("pair"), code.json().value(QStringLiteral("code")).toString()})
                     .exitCode,
                 0);
        deviceId = agent->get(QStringLiteral("/api/v1/agent/devices"))
                       .json()
                       .value(QStringLiteral("devices"))
                       .toArray()
                       .at(0)
                       .toObject()
                       .value(QStringLiteral("device_id"))
                       .toString();
        QVERIFY(!deviceId.isEmpty());

        QCOMPARE(companion({QStringLiteral("folders"), QStringLiteral("add"),
                            tree.path(QStringLiteral("Docs"))})
                     .out,
                 QByteArray("Docs\n"));
        QCOMPARE(companion({QStringLiteral("folders"), QStringLiteral("add"),
                            tree.path(QStringLiteral("Ref")), QStringLiteral("--read-only")})
                     .out,
                 QByteArray("Ref\n"));
        QCOMPARE(QString::fromUtf8(companion({QStringLiteral("folders")}).out),
                 QStringLiteral("Docs\t%1\tread-write\nRef\t%2\tread-only\n")
                     .arg(tree.path(QStringLiteral("Docs")), tree.path(QStringLiteral("Ref"))));
        QCOMPARE(companion({QStringLiteral("approval"), QStringLiteral("off")}).exitCode, 0);
        QVERIFY2(startHeadless(), qPrintable(headless->describe()));
    }

    void cleanupTestCase() {
        if (headless) {
            headless->kill();
        }
        if (service) {
            service->stop();
        }
    }

    void readOnlyFolderRefusesWrites() {
        const QJsonObject refusal{
            {QStringLiteral("ok"), false},
            {QStringLiteral("error"), QStringLiteral("The folder 'Ref' is shared read-only.")}};
        QCOMPARE(write(QStringLiteral("Ref/manual.txt"),
                       {{QStringLiteral("content"), QStringLiteral("changed")}}),
                 refusal);
        QCOMPARE(write(QStringLiteral("Ref/sub/new.txt"),
                       {{QStringLiteral("content"), QStringLiteral("new")}}),
                 refusal);
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Ref/manual.txt"))),
                 QByteArray("do not change"));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("Ref/sub"))));
        // Reading it is what it is shared for.
        const QJsonObject read = call(QStringLiteral("local_read_file"),
                                      {{QStringLiteral("path"), QStringLiteral("Ref/manual.txt")}});
        QCOMPARE(read.value(QStringLiteral("ok")), QJsonValue(true));

        // Made read-write while the companion runs, the folder takes the write at once.
        CommandRun r = companion({QStringLiteral("folders"), QStringLiteral("access"),
                                  QStringLiteral("Ref"), QStringLiteral("read-write")});
        QCOMPARE(r.exitCode, 0);
        QTRY_COMPARE(write(QStringLiteral("Ref/made.txt"),
                           {{QStringLiteral("content"), QStringLiteral("ok")}})
                         .value(QStringLiteral("ok")),
                     QJsonValue(true));
        r = companion({QStringLiteral("folders"), QStringLiteral("access"), QStringLiteral("Ref"),
                       QStringLiteral("read-only")});
        QCOMPARE(r.exitCode, 0);
        QTRY_COMPARE(write(QStringLiteral("Ref/made.txt"),
                           {{QStringLiteral("content"), QStringLiteral("again")}}),
                     refusal);
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Ref/made.txt"))), QByteArray("ok"));
    }

    void everyCallShowsInTheActivity() {
        const qsizetype before = headless->lines().size();
        QCOMPARE(call(QStringLiteral("local_list_files"), {}).value(QStringLiteral("ok")),
                 QJsonValue(true));
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}})
                     .value(QStringLiteral("ok")),
                 QJsonValue(true));
        QCOMPARE(call(QStringLiteral("local_search_files"),
                      {{QStringLiteral("query"), QStringLiteral("notes*")}})
                     .value(QStringLiteral("ok")),
                 QJsonValue(true));
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/missing\u001b[2J.txt")}})
                     .value(QStringLiteral("ok")),
                 QJsonValue(false));

        // --headless prints a line per call as it finishes.
        QVERIFY(headless->waitForLines(before + 4));
        const QStringList printed = headless->lines().mid(before, 4);
        QVERIFY2(printed[0].contains(QStringLiteral("  local_list_files  -  done, 2 items")),
                 qPrintable(printed[0]));
        QVERIFY2(printed[1].contains(
                     QStringLiteral("  local_read_file  Docs/notes.txt  done, read 23 bytes")),
                 qPrintable(printed[1]));
        QVERIFY2(printed[2].contains(QStringLiteral("  local_search_files  notes*  done, 1 item")),
                 qPrintable(printed[2]));
        // What the agent sent is shown, never obeyed by the terminal.
        QVERIFY2(printed[3].contains(QStringLiteral("Docs/missing\u241b[2J.txt  File not found")),
                 qPrintable(printed[3]));
        QVERIFY(!printed[3].contains(QChar(0x1b)));

        // `activity` asks the running companion: newest first, the refused writes included.
        const QStringList lines = activityLines();
        QVERIFY2(lines.size() >= 9, qPrintable(lines.join(u'\n')));
        QCOMPARE(lines.mid(0, 4), (QStringList{printed[3], printed[2], printed[1], printed[0]}));
        QVERIFY2(lines.join(u'\n').contains(QStringLiteral(
                     "local_write_file  Ref/manual.txt  The folder 'Ref' is shared read-only.")),
                 qPrintable(lines.join(u'\n')));
    }

    void emptiedFileIsRestored() {
        // Invalid base64 and no content: the file is emptied and the agent told it worked.
        const QJsonObject emptied =
            write(QStringLiteral("Docs/notes.txt"),
                  {{QStringLiteral("content_base64"), QStringLiteral("not base64!")}});
        QCOMPARE(emptied.value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Docs/notes.txt"))), QByteArray());

        const QString id =
            newestVersion(QStringLiteral("Docs/notes.txt"), QStringLiteral("23 bytes"));
        QVERIFY(!id.isEmpty());
        QVERIFY(activityLines().first().endsWith(QStringLiteral("(version %1 kept)").arg(id)));
        const CommandRun r = companion({QStringLiteral("restore"), id});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out,
                 QByteArray("Restored Docs/notes.txt as it was before the agent's write.\n"));
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Docs/notes.txt"))), notes);
        // The running companion was told: its activity says so.
        QTRY_VERIFY(activityLines().first().endsWith(QStringLiteral("(restored)")));
        // Used once.
        QCOMPARE(companion({QStringLiteral("restore"), id}).exitCode, 1);
    }

    void writeCutShortByTheFileSizeLimitIsRestored() {
        // The companion and its file tools may not make any file larger than 64 KiB.
        QVERIFY2(startHeadless({QStringLiteral("prlimit"), QStringLiteral("--fsize=65536"),
                                QStringLiteral("--")}),
                 qPrintable(headless->describe()));
        const QByteArray big = pattern(1024 * 1024);
        const QJsonObject failed =
            write(QStringLiteral("Docs/big.bin"),
                  {{QStringLiteral("content_base64"), QString::fromLatin1(big.toBase64())}});
        QCOMPARE(failed.value(QStringLiteral("ok")), QJsonValue(false));
        QVERIFY2(failed.value(QStringLiteral("error")).toString().contains(u"File too large"),
                 qPrintable(failed.value(QStringLiteral("error")).toString()));
        // The old content is gone, the new one cut off.
        QCOMPARE(QFileInfo(tree.path(QStringLiteral("Docs/big.bin"))).size(), 65536);

        const QString id = newestVersion(QStringLiteral("Docs/big.bin"), QStringLiteral("9.8 KiB"));
        QVERIFY(!id.isEmpty());
        const CommandRun r = companion({QStringLiteral("restore"), id});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Docs/big.bin"))), pattern(10000));
        QVERIFY2(startHeadless(), qPrintable(headless->describe()));
    }

    void fileChangedSinceIsLeftAlone() {
        QCOMPARE(write(QStringLiteral("Docs/notes.txt"),
                       {{QStringLiteral("content"), QStringLiteral("agent")}})
                     .value(QStringLiteral("ok")),
                 QJsonValue(true));
        const QString id =
            newestVersion(QStringLiteral("Docs/notes.txt"), QStringLiteral("23 bytes"));
        QVERIFY(!id.isEmpty());
        QVERIFY(TempTree::overwrite(tree.path(QStringLiteral("Docs/notes.txt")), "my own edit"));
        const CommandRun r = companion({QStringLiteral("restore"), id});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.err, QByteArray("quillmar-companion: Docs/notes.txt has changed since the "
                                   "agent wrote it, so it was not restored.\n"));
        QCOMPARE(TempTree::contents(tree.path(QStringLiteral("Docs/notes.txt"))),
                 QByteArray("my own edit"));
    }

    void pauseClosesTheBridgeAndOutlastsARestart() {
        const qsizetype before = headless->lines().size();
        CommandRun r = companion({QStringLiteral("pause")});
        QCOMPARE(r.exitCode, 0);
        QVERIFY(headless->waitFor(QStringLiteral("Paused"), before) >= 0);
        QTRY_VERIFY(!online());
        QCOMPARE(call(QStringLiteral("local_list_files"), {}).value(QStringLiteral("http")), 409);
        r = companion({QStringLiteral("status")});
        QVERIFY2(r.out.contains("Connection: Paused\nSharing: paused"), r.out.constData());

        // Restarted, it stays paused: no connection at all.
        QVERIFY2(startHeadless({}, QStringLiteral("Paused")), qPrintable(headless->describe()));
        QTest::qWait(1500);
        QVERIFY2(!headless->lines().contains(connected), qPrintable(headless->describe()));
        QVERIFY(!online());

        r = companion({QStringLiteral("resume")});
        QCOMPARE(r.exitCode, 0);
        QVERIFY(headless->waitFor(connected) >= 0);
        QTRY_VERIFY(online());
        QCOMPARE(call(QStringLiteral("local_list_files"), {}).value(QStringLiteral("ok")),
                 QJsonValue(true));
        // The pairing and the folders were never touched.
        QCOMPARE(QString::fromUtf8(companion({QStringLiteral("folders")}).out).count(u'\n'), 2);
    }
};

QTEST_GUILESS_MAIN(TrustControlsTest)
#include "tst_trustcontrols.moc"
