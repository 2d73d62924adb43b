// The whole road of a tool call: quillmar-devservice and the headless quillmar-companion as
// real processes, paired and set up through the companion's own commands, talking over the
// bridge on 127.0.0.1. The companion runs in a throwaway home without a session bus, so its
// token goes to a file there.

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "DevServiceProcess.h"
#include "FileService.h"
#include "HttpJson.h"
#include "LineProcess.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString online = QStringLiteral("Connected to Quillmar");

} // namespace

class BridgeEndToEndTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir stateDir;
    CompanionSandbox sandbox;
    QList<SharedFolder> folders;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<LineProcess> companion;
    std::unique_ptr<HttpJson> http;
    QString deviceId;
    // What the companion's commands printed, and their arguments, for the token check.
    QList<QByteArray> commandOutputs;
    QList<QStringList> commandArguments;

    CommandRun companionCommand(const QStringList& arguments) {
        const CommandRun r = CommandRun::run(companionBin, arguments, sandbox.environment());
        commandOutputs << r.out << r.err;
        commandArguments << arguments;
        return r;
    }

    QString token() const {
        const QStringList tokens = service->deviceTokens();
        return tokens.size() == 1 ? tokens.front() : QString();
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

        QVERIFY(sandbox.isValid());
        service =
            std::make_unique<DevServiceProcess>(QStringLiteral(QUILLMAR_DEVSERVICE_BIN),
                                                stateDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        http = std::make_unique<HttpJson>(service->baseUrl());
        sandbox.setApiBase(service->baseUrl());

        // Set up as a user would: pair with the code the service printed, share two folders.
        CommandRun r = companionCommand({QStringLiteral("pair"), service->pairingCode()});
        QVERIFY2(r.exitCode == 0, qPrintable(r.describe()));
        QVERIFY(!token().isEmpty());
        for (const SharedFolder& folder : std::as_const(folders)) {
            r = companionCommand({QStringLiteral("folders"), QStringLiteral("add"), folder.path});
            QVERIFY2(r.exitCode == 0, qPrintable(r.describe()));
            QCOMPARE(QString::fromUtf8(r.out), folder.name + u'\n');
        }
        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        QCOMPARE(devices.size(), 1);
        deviceId = devices[0].toObject().value(QStringLiteral("device_id")).toString();
        QVERIFY(!deviceId.isEmpty());

        // Asking before writes is left on, and there is no terminal to ask on.
        companion = std::make_unique<LineProcess>();
        companion->start(companionBin, {QStringLiteral("--headless")}, sandbox.environment());
        QVERIFY2(companion->waitFor(online) >= 0, qPrintable(companion->describe()));
        const QStringList lines = companion->lines();
        QCOMPARE(lines.size(), 5);
        QVERIFY(lines[0].contains(QStringLiteral("will be refused")));
        QCOMPARE(lines[1], QStringLiteral("Sharing 2 folders with %1").arg(service->baseUrl()));
        QCOMPARE(lines[2], QStringLiteral("File access: confined by the kernel"));
        QCOMPARE(lines[3], QStringLiteral("Connecting\u2026"));
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
        // Asking before writes is on and nobody is there to ask: refused, nothing is written.
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
        if (method == u"local_write_file") {
            QCOMPARE(reply.json().value(QStringLiteral("ok")), QJsonValue(false));
            QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                     QStringLiteral("Write was declined on the user's computer."));
        }
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
        socket.connectToHost(QHostAddress::LocalHost, service->port());
        socket.write(
            "GET /api/v1/devices/bridge?token=wrong HTTP/1.1\r\nHost: x\r\n"
            "Upgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        QByteArray answer;
        QTRY_VERIFY((answer += socket.readAll()).contains("\r\n\r\n"));
        QVERIFY(answer.startsWith("HTTP/1.1 401 "));
    }

    void reconnectsAfterTheServiceRestarts() {
        const qsizetype before = companion->lines().size();
        const quint16 oldPort = service->port();
        service->stop();

        const QString waiting = QStringLiteral("Reconnecting in 2s\u2026");
        const qsizetype waitingAt = companion->waitFor(waiting, before);
        QVERIFY2(waitingAt >= 0, qPrintable(companion->describe()));
        QVERIFY2(service->start(oldPort), qPrintable(service->describe()));

        // The service is back long before the announced delay is over, so the companion's next
        // attempt, made after that delay, succeeds at once. One made early, while the service
        // was down, would have failed and announced a longer delay in between. The reason
        // stands between the two.
        const qsizetype connectingAt =
            companion->waitFor(QStringLiteral("Connecting\u2026"), waitingAt);
        QVERIFY2(connectingAt == waitingAt + 2, qPrintable(companion->describe()));
        QCOMPARE(companion->lines().at(waitingAt + 1),
                 QStringLiteral("The connection to the service broke."));
        QVERIFY2(companion->waitFor(online, connectingAt) == connectingAt + 1,
                 qPrintable(companion->describe()));
        qInfo(
            "reconnected %lld ms after announcing the delay",
            static_cast<long long>(companion->timeOf(connectingAt) - companion->timeOf(waitingAt)));

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
        const QString deviceToken = token();
        QVERIFY(deviceToken.size() >= 16);
        const QByteArray tokenBytes = deviceToken.toUtf8();
        QVERIFY(!companion->arguments().join(u' ').contains(deviceToken));
        QVERIFY(!companion->allOutput().contains(tokenBytes));
        QVERIFY(!service->allOutput().contains(tokenBytes));
        QCOMPARE(commandOutputs.size(), 6);
        for (const QByteArray& output : std::as_const(commandOutputs)) {
            QVERIFY(!output.contains(tokenBytes));
        }
        for (const QStringList& arguments : std::as_const(commandArguments)) {
            QVERIFY(!arguments.join(u' ').contains(deviceToken));
        }
        // Without a session bus the token is kept in the sandbox's private file.
        QFile file(sandbox.tokenFile());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), tokenBytes);
    }
};

QTEST_GUILESS_MAIN(BridgeEndToEndTest)
#include "tst_bridgeendtoend.moc"
