// The whole road of a tool call: quillmar-devservice and `quillmar-companion bridge` as real
// processes, paired over HTTP, talking over the bridge on 127.0.0.1.

#include "FileService.h"
#include "HttpJson.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

namespace {

// A child process whose standard output is taken line by line, each line with the time it
// arrived.
struct LineProcess {
    QProcess process;
    QStringList lines;
    QList<qint64> times;
    QElapsedTimer clock;
    QByteArray pending;

    LineProcess() {
        clock.start();
        process.setProcessChannelMode(QProcess::SeparateChannels);
        QObject::connect(&process, &QProcess::readyReadStandardOutput, [this] {
            pending += process.readAllStandardOutput();
            for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
                lines.append(QString::fromUtf8(pending.left(end)));
                times.append(clock.elapsed());
                pending.remove(0, end + 1);
            }
        });
    }

    ~LineProcess() { stop(); }

    void stop() {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    // Index of the first line at or after `from` equal to `line`, waiting for it; -1 if it
    // does not come in time.
    qsizetype waitFor(const QString& line, qsizetype from = 0, int timeoutMs = 10000) {
        static_cast<void>(QTest::qWaitFor(
            [&] {
                return lines.indexOf(line, from) >= 0 || process.state() == QProcess::NotRunning;
            },
            timeoutMs));
        return lines.indexOf(line, from);
    }
};

const QString online = QStringLiteral("online Connected to Quillmar");

} // namespace

class BridgeEndToEndTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir stateDir;
    QList<SharedFolder> folders;
    std::unique_ptr<LineProcess> service;
    std::unique_ptr<LineProcess> companion;
    std::unique_ptr<HttpJson> http;
    quint16 port = 0;
    QString pairingCode;
    QString token;
    QString deviceId;

    bool startService(quint16 wanted) {
        service = std::make_unique<LineProcess>();
        service->process.start(QStringLiteral(QUILLMAR_DEVSERVICE_BIN),
                               {QStringLiteral("--port"), QString::number(wanted),
                                QStringLiteral("--state"),
                                stateDir.filePath(QStringLiteral("state.json"))});
        if (!QTest::qWaitFor([&] { return service->lines.size() >= 2; }, 10000)) {
            qWarning() << service->process.readAllStandardError();
            return false;
        }
        const QString listening = service->lines[0];
        if (!listening.startsWith(u"listening http://127.0.0.1:") ||
            !service->lines[1].startsWith(u"pairing-code ")) {
            return false;
        }
        port = quint16(listening.section(u':', -1).toUInt());
        pairingCode = service->lines[1].section(u' ', 1);
        http = std::make_unique<HttpJson>(QStringLiteral("http://127.0.0.1:%1").arg(port));
        return port != 0 && (wanted == 0 || port == wanted);
    }

    QJsonObject expectedFrame(const QString& reqId, const QString& method,
                              const QJsonObject& params) {
        const QJsonObject result = QCoro::waitFor(FileService::handle(method, params, folders));
        QJsonObject frame{{QStringLiteral("type"), QStringLiteral("result")},
                          {QStringLiteral("req_id"), reqId}};
        if (result.value(QStringLiteral("error")).isString()) {
            frame.insert(QStringLiteral("ok"), false);
            frame.insert(QStringLiteral("error"), result.value(QStringLiteral("error")));
        } else {
            frame.insert(QStringLiteral("ok"), true);
            frame.insert(QStringLiteral("result"), result);
        }
        return frame;
    }

private slots:
    void initTestCase() {
        QVERIFY(stateDir.isValid());
        tree.file(QStringLiteral("Docs/notes.txt"), "first line\nsecond line\n");
        tree.file(QStringLiteral("Docs/caf\u00e9.md"), "# caf\xc3\xa9\n");
        tree.file(QStringLiteral("Docs/reports/q1.md"), "q1");
        tree.file(QStringLiteral("Docs/reports/q2.md"), "q2");
        tree.file(QStringLiteral("Pics/a.png"), "png");
        folders = {SharedFolder{QUuid::createUuid(), QStringLiteral("Docs"),
                                tree.path(QStringLiteral("Docs")), std::nullopt},
                   SharedFolder{QUuid::createUuid(), QStringLiteral("Pics"),
                                tree.path(QStringLiteral("Pics")), std::nullopt}};

        QVERIFY(startService(0));

        // Pairing, as the companion's pairing client will do it: one plain POST.
        const HttpJson::Reply claim =
            http->post(QStringLiteral("/api/v1/devices/pair/claim"),
                       QJsonObject{{QStringLiteral("code"), pairingCode},
                                   {QStringLiteral("device_name"), QStringLiteral("Test box")},
                                   {QStringLiteral("platform"), QStringLiteral("macos")}});
        QCOMPARE(claim.status, 200);
        token = claim.json().value(QStringLiteral("device_token")).toString();
        deviceId = claim.json().value(QStringLiteral("device_id")).toString();
        QVERIFY(!token.isEmpty() && !deviceId.isEmpty());

        companion = std::make_unique<LineProcess>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QUILLMAR_DEVICE_TOKEN"), token);
        companion->process.setProcessEnvironment(environment);
        companion->process.start(
            QStringLiteral(QUILLMAR_COMPANION_BIN),
            {QStringLiteral("bridge"), QStringLiteral("--api"),
             QStringLiteral("http://127.0.0.1:%1").arg(port), QStringLiteral("--folder"),
             QStringLiteral("Docs=") + tree.path(QStringLiteral("Docs")),
             QStringLiteral("--folder=Pics=") + tree.path(QStringLiteral("Pics"))});
        QVERIFY2(companion->waitFor(online) >= 0,
                 qPrintable(companion->lines.join(u'|') +
                            QString::fromUtf8(companion->process.readAllStandardError())));
        QCOMPARE(companion->lines.first(), QStringLiteral("offline Connecting\u2026"));
    }

    void cleanupTestCase() {
        companion.reset();
        service.reset();
    }

    void toolCallsThroughTheAgentApi_data() {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QJsonObject>("params");
        QTest::newRow("list folders") << QStringLiteral("local_list_files") << QJsonObject();
        QTest::newRow("list Docs") << QStringLiteral("local_list_files")
                                   << QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs")}};
        QTest::newRow("list reports")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/reports")}};
        QTest::newRow("read") << QStringLiteral("local_read_file")
                              << QJsonObject{
                                     {QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}};
        QTest::newRow("read non-ASCII name")
            << QStringLiteral("local_read_file")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/caf\u00e9.md")}};
        QTest::newRow("search fragment")
            << QStringLiteral("local_search_files")
            << QJsonObject{{QStringLiteral("query"), QStringLiteral("q")}};
        QTest::newRow("search wildcard")
            << QStringLiteral("local_search_files")
            << QJsonObject{{QStringLiteral("query"), QStringLiteral("*.md")},
                           {QStringLiteral("max_results"), 2}};
        QTest::newRow("read outside")
            << QStringLiteral("local_read_file")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/../../x")}};
        QTest::newRow("read missing file")
            << QStringLiteral("local_read_file")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/none.txt")}};
        QTest::newRow("read without path") << QStringLiteral("local_read_file") << QJsonObject();
        QTest::newRow("unknown folder")
            << QStringLiteral("local_list_files")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral("Nope/x")}};
        QTest::newRow("search without query")
            << QStringLiteral("local_search_files") << QJsonObject();
        QTest::newRow("unknown method") << QStringLiteral("local_delete_files") << QJsonObject();
        QTest::newRow("empty method") << QString() << QJsonObject();
        // Nobody is there to approve a write: refused, and nothing is written.
        QTest::newRow("write") << QStringLiteral("local_write_file")
                               << QJsonObject{
                                      {QStringLiteral("path"), QStringLiteral("Docs/new.txt")},
                                      {QStringLiteral("content"), QStringLiteral("x")}};
    }

    void toolCallsThroughTheAgentApi() {
        QFETCH(QString, method);
        QFETCH(QJsonObject, params);
        const HttpJson::Reply reply = http->post(
            QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
            QJsonObject{{QStringLiteral("method"), method}, {QStringLiteral("params"), params}});
        QCOMPARE(reply.status, 200);
        const QString reqId = reply.json().value(QStringLiteral("req_id")).toString();
        QVERIFY(!reqId.isEmpty());
        const QJsonObject expected = expectedFrame(reqId, method, params);
        QCOMPARE(reply.json(), expected);
        // Byte for byte: one compact frame.
        QCOMPARE(reply.body, QJsonDocument(expected).toJson(QJsonDocument::Compact));
        QVERIFY(!QFile::exists(tree.path(QStringLiteral("Docs/new.txt"))));
    }

    void callsWithOddFields() {
        // No method at all, and params that are not an object.
        HttpJson::Reply reply = http->post(QStringLiteral("/api/v1/agent/calls"),
                                           QJsonObject{{QStringLiteral("device_id"), deviceId}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("Unknown method: "));
        reply =
            http->post(QStringLiteral("/api/v1/agent/calls"),
                       QJsonObject{{QStringLiteral("device_id"), deviceId},
                                   {QStringLiteral("method"), QStringLiteral("local_read_file")},
                                   {QStringLiteral("params"), QStringLiteral("Docs/notes.txt")}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("ok")), QJsonValue(false));
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("A 'path' is required."));
    }

    void serviceRefusesUnknownTokens() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(
            "GET /api/v1/devices/bridge?token=wrong HTTP/1.1\r\nHost: x\r\n"
            "Upgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        QByteArray answer;
        QTRY_VERIFY((answer += socket.readAll()).contains("\r\n\r\n"));
        QVERIFY(answer.startsWith("HTTP/1.1 401 "));
    }

    void reconnectsAfterTheServiceRestarts() {
        const qsizetype before = companion->lines.size();
        const quint16 oldPort = port;
        service->stop();

        const QString waiting = QStringLiteral("offline Reconnecting in 2s\u2026");
        const qsizetype waitingAt = companion->waitFor(waiting, before);
        QVERIFY2(waitingAt >= 0, qPrintable(companion->lines.join(u'|')));
        QVERIFY(startService(oldPort));

        const qsizetype connectingAt =
            companion->waitFor(QStringLiteral("offline Connecting\u2026"), waitingAt);
        QVERIFY2(connectingAt == waitingAt + 1, qPrintable(companion->lines.join(u'|')));
        const qint64 waited = companion->times[connectingAt] - companion->times[waitingAt];
        QVERIFY2(waited >= 1500 && waited < 5000, qPrintable(QString::number(waited)));
        QVERIFY(companion->waitFor(online, connectingAt) == connectingAt + 1);

        const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Docs/reports/q2.md")}};
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
                       QJsonObject{{QStringLiteral("method"), QStringLiteral("local_read_file")},
                                   {QStringLiteral("params"), params}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json(),
                 expectedFrame(reply.json().value(QStringLiteral("req_id")).toString(),
                               QStringLiteral("local_read_file"), params));
    }

    void tokenStaysOffTheCommandLineAndTheOutput() {
        QVERIFY(!companion->process.arguments().join(u' ').contains(token));
        QVERIFY(!companion->lines.join(u'\n').contains(token));
        QVERIFY(!companion->process.readAllStandardError().contains(token.toUtf8()));
        QVERIFY(!service->lines.join(u'\n').contains(token));
    }
};

QTEST_GUILESS_MAIN(BridgeEndToEndTest)
#include "tst_bridgeendtoend.moc"
