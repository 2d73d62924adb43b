// The dev service on its own: pairing codes, the bridge's door, and the agent API, in process
// on 127.0.0.1 with plain sockets as devices.

#include "BridgeClient.h"
#include "DevService.h"
#include "HttpJson.h"
#include "ManualScheduler.h"
#include "ScriptedCallHandler.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>

namespace {

QString compact(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QJsonObject parse(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// The HTTP answer to a WebSocket upgrade request for `target`, head and body.
QByteArray rawUpgrade(quint16 port, const QByteArray& target) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    socket.write(
        "GET " + target +
        " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    QByteArray answer;
    static_cast<void>(QTest::qWaitFor(
        [&] {
            answer += socket.readAll();
            return answer.contains("\r\n\r\n") &&
                   (answer.startsWith("HTTP/1.1 101") ||
                    socket.state() == QAbstractSocket::UnconnectedState);
        },
        5000));
    return answer;
}

// A device at the socket level, answering nothing unless told to.
struct Device {
    QWebSocket socket;
    QStringList frames;
    bool closed = false;

    Device() {
        QObject::connect(&socket, &QWebSocket::textMessageReceived,
                         [this](const QString& text) { frames.append(text); });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] { closed = true; });
    }

    bool open(quint16 port, const QString& token) {
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/api/v1/devices/bridge?token=%2")
                             .arg(port)
                             .arg(QString::fromLatin1(QUrl::toPercentEncoding(token)))));
        return QTest::qWaitFor([&] { return !frames.isEmpty(); }, 5000) &&
               frames.front() == u"{\"type\":\"hello\"}";
    }
};

} // namespace

class DevServiceTest : public QObject {
    Q_OBJECT

    std::unique_ptr<DevService> service;
    std::unique_ptr<HttpJson> http;

    struct Pairing {
        QString token;
        QString deviceId;
    };

    QString newCode(qint64 ttl = -1) {
        const QJsonObject body =
            ttl < 0 ? QJsonObject() : QJsonObject{{QStringLiteral("ttl_seconds"), ttl}};
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/pairing-codes"), body);
        return reply.status == 201 ? reply.json().value(QStringLiteral("code")).toString()
                                   : QString();
    }

    Pairing pair(const QString& name = QStringLiteral("Desk")) {
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/devices/pair/claim"),
                       QJsonObject{{QStringLiteral("code"), newCode()},
                                   {QStringLiteral("device_name"), name},
                                   {QStringLiteral("platform"), QStringLiteral("linux")}});
        return {reply.json().value(QStringLiteral("device_token")).toString(),
                reply.json().value(QStringLiteral("device_id")).toString()};
    }

    static QCoro::Task<ToolResult> answerWith(ToolResult result) { co_return result; }

    HttpJson::Reply callDevice(const QString& deviceId, const QJsonObject& body) {
        return http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId), body);
    }

private slots:
    void init() {
        service = std::make_unique<DevService>();
        QString error;
        QVERIFY2(service->listen(QHostAddress::LocalHost, 0, error), qPrintable(error));
        http =
            std::make_unique<HttpJson>(QStringLiteral("http://127.0.0.1:%1").arg(service->port()));
    }

    void cleanup() {
        http.reset();
        service.reset();
    }

    void codesAreEightCapitalsOrDigits() {
        const QRegularExpression shape(QStringLiteral("^[A-Z0-9]{8}$"));
        QSet<QString> seen;
        for (int i = 0; i < 200; ++i) {
            const QString code = service->registry().issueCode();
            QVERIFY2(shape.match(code).hasMatch(), qPrintable(code));
            seen.insert(code);
        }
        QCOMPARE(seen.size(), 200);
        QVERIFY(shape.match(newCode()).hasMatch());
    }

    void claimPairsOnceAndRemembersTheDevice() {
        const QString code = newCode();
        const QJsonObject body{{QStringLiteral("code"), code},
                               {QStringLiteral("device_name"), QStringLiteral("Ada's laptop")},
                               {QStringLiteral("platform"), QStringLiteral("linux")}};
        const HttpJson::Reply first =
            http->post(QStringLiteral("/api/v1/devices/pair/claim"), body);
        QCOMPARE(first.status, 200);
        const QJsonObject answer = first.json();
        QCOMPARE(answer.keys(),
                 (QStringList{QStringLiteral("device_id"), QStringLiteral("device_token"),
                              QStringLiteral("org_id")}));
        for (const QString& key : answer.keys()) {
            QVERIFY(answer.value(key).isString() && !answer.value(key).toString().isEmpty());
        }

        QCOMPARE(http->post(QStringLiteral("/api/v1/devices/pair/claim"), body).status, 400);

        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        QCOMPARE(devices.size(), 1);
        QCOMPARE(
            devices[0].toObject(),
            (QJsonObject{{QStringLiteral("device_id"), answer.value(QStringLiteral("device_id"))},
                         {QStringLiteral("device_name"), QStringLiteral("Ada's laptop")},
                         {QStringLiteral("platform"), QStringLiteral("linux")},
                         {QStringLiteral("org_id"), answer.value(QStringLiteral("org_id"))},
                         {QStringLiteral("online"), false}}));
        const HttpJson::Reply one = http->get(QStringLiteral("/api/v1/agent/devices/") +
                                              answer.value(QStringLiteral("device_id")).toString());
        QCOMPARE(one.status, 200);
        QCOMPARE(one.json(), devices[0].toObject());
    }

    void claimRejects_data() {
        QTest::addColumn<QByteArray>("body");
        // %CODE% becomes a fresh valid code, %EXPIRED% a code that has run out.
        QTest::newRow("unknown code")
            << QByteArray(R"({"code":"ZZZZ9999","device_name":"d","platform":"linux"})");
        QTest::newRow("lower case")
            << QByteArray(R"({"code":"%lower%","device_name":"d","platform":"linux"})");
        QTest::newRow("empty code")
            << QByteArray(R"({"code":"","device_name":"d","platform":"linux"})");
        QTest::newRow("expired") << QByteArray(
            R"({"code":"%EXPIRED%","device_name":"d","platform":"linux"})");
        QTest::newRow("code is a number")
            << QByteArray(R"({"code":12345678,"device_name":"d","platform":"linux"})");
        QTest::newRow("no device_name") << QByteArray(R"({"code":"%CODE%","platform":"linux"})");
        QTest::newRow("no platform") << QByteArray(R"({"code":"%CODE%","device_name":"d"})");
        QTest::newRow("not JSON") << QByteArray("code=%CODE%");
        QTest::newRow("array") << QByteArray(R"(["%CODE%","d","linux"])");
        QTest::newRow("empty body") << QByteArray();
    }

    void claimRejects() {
        QFETCH(QByteArray, body);
        const QString code = newCode();
        body.replace("%CODE%", code.toUtf8());
        body.replace("%lower%", code.toLower().toUtf8());
        body.replace("%EXPIRED%", newCode(0).toUtf8());
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/devices/pair/claim"), body);
        QCOMPARE(reply.status, 400);
        QVERIFY(reply.json().value(QStringLiteral("error")).isString());
        QVERIFY(http->get(QStringLiteral("/api/v1/agent/devices"))
                    .json()
                    .value(QStringLiteral("devices"))
                    .toArray()
                    .isEmpty());

        // A refused claim does not spend the code.
        const HttpJson::Reply good =
            http->post(QStringLiteral("/api/v1/devices/pair/claim"),
                       QJsonObject{{QStringLiteral("code"), code},
                                   {QStringLiteral("device_name"), QStringLiteral("d")},
                                   {QStringLiteral("platform"), QStringLiteral("linux")}});
        QCOMPARE(good.status, 200);
    }

    void codesExpireAfterTenMinutes() {
        QDateTime now = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
        DeviceRegistry registry([&now] { return now; });
        const QString first = registry.issueCode();
        const QString second = registry.issueCode();
        now = now.addSecs(599);
        QVERIFY(registry.claim(first, QStringLiteral("a"), QStringLiteral("linux")));
        now = now.addSecs(1);
        QVERIFY(!registry.claim(second, QStringLiteral("b"), QStringLiteral("linux")));
        QCOMPARE(registry.devices().size(), 1);
    }

    void unknownTokensAreRefusedWith401_data() {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("unknown") << QByteArray("/api/v1/devices/bridge?token=nope");
        QTest::newRow("empty") << QByteArray("/api/v1/devices/bridge?token=");
        QTest::newRow("missing") << QByteArray("/api/v1/devices/bridge");
        QTest::newRow("other key") << QByteArray("/api/v1/devices/bridge?tok=x");
    }

    void unknownTokensAreRefusedWith401() {
        QFETCH(QByteArray, target);
        pair(); // one device exists; its token is not used here
        const QByteArray answer = rawUpgrade(service->port(), target);
        QVERIFY2(answer.startsWith("HTTP/1.1 401 "), answer.constData());

        // A client sees a failed handshake.
        QWebSocket socket;
        bool failed = false;
        connect(&socket, &QWebSocket::disconnected, this, [&] { failed = true; });
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(service->port()) +
                         QString::fromLatin1(target)));
        QTRY_VERIFY(failed || socket.state() == QAbstractSocket::UnconnectedState);
        QVERIFY(socket.state() != QAbstractSocket::ConnectedState);
    }

    void acceptedDeviceIsGreetedAndPingsAreAnswered() {
        const Pairing pairing = pair();
        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        device.socket.sendTextMessage(QStringLiteral(R"({"type":"ping"})"));
        QTRY_COMPARE(device.frames.size(), 2);
        QCOMPARE(device.frames[1], QStringLiteral(R"({"type":"pong"})"));
        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        QCOMPARE(devices[0].toObject().value(QStringLiteral("online")), QJsonValue(true));
    }

    void oneConnectionPerDevice() {
        const Pairing pairing = pair();
        Device older;
        QVERIFY(older.open(service->port(), pairing.token));
        Device newer;
        QVERIFY(newer.open(service->port(), pairing.token));
        QTRY_VERIFY(older.closed);

        // Calls go to the newer connection.
        connect(&newer.socket, &QWebSocket::textMessageReceived, this, [&](const QString& text) {
            const QJsonObject frame = parse(text);
            if (frame.value(QStringLiteral("type")).toString() == u"call") {
                newer.socket.sendTextMessage(
                    compact({{QStringLiteral("type"), QStringLiteral("result")},
                             {QStringLiteral("req_id"), frame.value(QStringLiteral("req_id"))},
                             {QStringLiteral("ok"), true},
                             {QStringLiteral("result"), QJsonObject()}}));
            }
        });
        const HttpJson::Reply reply = callDevice(
            pairing.deviceId, {{QStringLiteral("method"), QStringLiteral("local_list_files")}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(older.frames.size(), 1); // hello only
    }

    void callsCarryTheAgentsFieldsAndReturnTheDevicesFrame() {
        const Pairing pairing = pair();
        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        QString answer;
        connect(&device.socket, &QWebSocket::textMessageReceived, this, [&](const QString& text) {
            const QJsonObject frame = parse(text);
            if (frame.value(QStringLiteral("type")).toString() == u"call") {
                // Key order and spacing of the device's frame are kept.
                answer =
                    QStringLiteral(R"({"type":"result", "req_id":"%1","ok":false,"error":"no"})")
                        .arg(frame.value(QStringLiteral("req_id")).toString());
                device.socket.sendTextMessage(answer);
            }
        });
        const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Docs")},
                                 {QStringLiteral("n"), 5}};
        const HttpJson::Reply first =
            http->post(QStringLiteral("/api/v1/agent/calls"),
                       QJsonObject{{QStringLiteral("device_id"), pairing.deviceId},
                                   {QStringLiteral("method"), QStringLiteral("local_list_files")},
                                   {QStringLiteral("params"), params}});
        QCOMPARE(first.status, 200);
        QCOMPARE(first.body, answer.toUtf8());

        const QJsonObject sent = parse(device.frames[1]);
        QCOMPARE(sent.keys(), (QStringList{QStringLiteral("method"), QStringLiteral("params"),
                                           QStringLiteral("req_id"), QStringLiteral("type")}));
        QCOMPARE(sent.value(QStringLiteral("type")), QJsonValue(QStringLiteral("call")));
        QCOMPARE(sent.value(QStringLiteral("method")),
                 QJsonValue(QStringLiteral("local_list_files")));
        QCOMPARE(sent.value(QStringLiteral("params")).toObject(), params);
        const QString firstId = sent.value(QStringLiteral("req_id")).toString();
        QVERIFY(!firstId.isEmpty());

        // Fields of the wrong type and missing ones travel as given.
        QCOMPARE(callDevice(pairing.deviceId, {{QStringLiteral("method"), 7}}).status, 200);
        const QJsonObject odd = parse(device.frames[2]);
        QCOMPARE(odd.value(QStringLiteral("method")), QJsonValue(7));
        QVERIFY(!odd.contains(QStringLiteral("params")));
        QVERIFY(odd.value(QStringLiteral("req_id")).toString() != firstId);
    }

    void callFailures() {
        const Pairing pairing = pair();
        const QJsonObject call{{QStringLiteral("method"), QStringLiteral("local_list_files")}};

        HttpJson::Reply reply = callDevice(QStringLiteral("dev_nope"), call);
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("Unknown device: dev_nope"));

        reply = callDevice(pairing.deviceId, call);
        QCOMPARE(reply.status, 409);
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("Device %1 is offline.").arg(pairing.deviceId));

        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        QJsonObject quick = call;
        quick.insert(QStringLiteral("timeout_ms"), 200);
        QElapsedTimer timer;
        timer.start();
        reply = callDevice(pairing.deviceId, quick);
        QCOMPARE(reply.status, 504);
        QVERIFY(timer.elapsed() >= 190);
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("Device %1 did not answer within 200 ms.").arg(pairing.deviceId));
        // A late answer to that call is ignored.
        device.socket.sendTextMessage(
            compact({{QStringLiteral("type"), QStringLiteral("result")},
                     {QStringLiteral("req_id"),
                      parse(device.frames.last()).value(QStringLiteral("req_id"))},
                     {QStringLiteral("ok"), true}}));

        connect(&device.socket, &QWebSocket::textMessageReceived, this, [&](const QString& text) {
            if (parse(text).value(QStringLiteral("type")).toString() == u"call") {
                device.socket.abort();
            }
        });
        reply = callDevice(pairing.deviceId, call);
        QCOMPARE(reply.status, 502);
        QCOMPARE(reply.json().value(QStringLiteral("error")).toString(),
                 QStringLiteral("Device %1 disconnected before answering.").arg(pairing.deviceId));

        QCOMPARE(http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(pairing.deviceId),
                            QByteArray("[1]"))
                     .status,
                 400);
        QJsonObject badTimeout = call;
        badTimeout.insert(QStringLiteral("timeout_ms"), QStringLiteral("soon"));
        QCOMPARE(callDevice(pairing.deviceId, badTimeout).status, 400);
        QCOMPARE(http->post(QStringLiteral("/api/v1/agent/calls"), call).status, 400);
    }

    void dropAndRefuse() {
        const Pairing pairing = pair();
        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        const HttpJson::Reply dropped =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/drop").arg(pairing.deviceId),
                       QJsonObject{{QStringLiteral("refuse_seconds"), 60}});
        QCOMPARE(dropped.status, 200);
        QCOMPARE(dropped.json().value(QStringLiteral("dropped")), QJsonValue(true));
        QTRY_VERIFY(device.closed);

        const QByteArray target =
            "/api/v1/devices/bridge?token=" + QUrl::toPercentEncoding(pairing.token);
        QVERIFY(rawUpgrade(service->port(), target).startsWith("HTTP/1.1 503 "));
        QCOMPARE(http->post(QStringLiteral("/api/v1/agent/bridge/refuse"),
                            QJsonObject{{QStringLiteral("seconds"), 0}})
                     .status,
                 200);
        Device again;
        QVERIFY(again.open(service->port(), pairing.token));

        QCOMPARE(
            http->post(QStringLiteral("/api/v1/agent/devices/dev_nope/drop"), QByteArray()).status,
            404);
        QCOMPARE(http->post(QStringLiteral("/api/v1/agent/bridge/refuse"), QByteArray("{}")).status,
                 400);
    }

    void rawFramesGoOutAsTheyAre() {
        const Pairing pairing = pair();
        const QString path = QStringLiteral("/api/v1/agent/devices/%1/raw").arg(pairing.deviceId);
        // Offline: nothing to send on.
        QCOMPARE(http->post(path, QByteArray("x")).status, 409);

        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        QList<QByteArray> binaries;
        connect(&device.socket, &QWebSocket::binaryMessageReceived, this,
                [&](const QByteArray& bytes) { binaries.append(bytes); });

        // Text by default, the body unread: not JSON, not even close.
        HttpJson::Reply reply = http->post(path, QByteArray("{\"type\":[[[ not json"));
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json(), (QJsonObject{{QStringLiteral("device_id"), pairing.deviceId},
                                            {QStringLiteral("frame"), QStringLiteral("text")},
                                            {QStringLiteral("bytes"), 20}}));
        QTRY_COMPARE(device.frames.size(), 2);
        QCOMPARE(device.frames[1], QStringLiteral("{\"type\":[[[ not json"));

        // Binary: every byte as it is, invalid UTF-8 and NUL included.
        const QByteArray bytes("\xff\xfe\x00\xc3\x28raw", 8);
        reply = http->post(path + QStringLiteral("?frame=binary"), bytes);
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("frame")).toString(), QStringLiteral("binary"));
        QTRY_COMPARE(binaries.size(), 1);
        QCOMPARE(binaries[0], bytes);

        // An answer to a raw frame is nobody's: it is ignored, the device stays connected.
        device.socket.sendTextMessage(
            QStringLiteral(R"({"type":"result","req_id":"raw-1","ok":true})"));
        QCOMPARE(http->get(QStringLiteral("/api/v1/agent/devices/%1").arg(pairing.deviceId))
                     .json()
                     .value(QStringLiteral("online")),
                 QJsonValue(true));

        QCOMPARE(http->post(path + QStringLiteral("?frame=smoke"), QByteArray("x")).status, 400);
        QCOMPARE(http->post(QStringLiteral("/api/v1/agent/devices/dev_nope/raw"), QByteArray("x"))
                     .status,
                 404);
        QCOMPARE(device.frames.size(), 2);
        QVERIFY(!device.closed);
    }

    // The companion's own client on the bridge: a call of a few MiB, which Qt sends in 512 KiB
    // frames cut inside characters, reaches it whole, and its answer of about 64 MiB comes
    // back to the agent byte for byte.
    void largeCallsAndAnswersWithTheCompanionsClient() {
        const Pairing pairing = pair();
        ScriptedCallHandler calls;
        BridgeClient client(&calls, std::make_unique<ManualScheduler>());
        bool online = false;
        QObject::connect(&client, &BridgeClient::statusChanged,
                         [&](bool isOnline, const QString&) { online = isOnline; });
        const QByteArray emoji = QStringLiteral("\U0001F600").toUtf8();
        const QByteArray big = "{\"text\":\"" + emoji.repeated(16 * 1024 * 1024 - 8) + "\"}";
        QString seen;
        calls.answer = [&](QString method, QJsonObject params) {
            seen = params.value(QStringLiteral("text")).toString();
            return answerWith(method == u"big" ? ToolResult::fromJson(big)
                                               : ToolResult(QJsonObject{
                                                     {QStringLiteral("length"), seen.size()}}));
        };
        client.connect(pairing.token, QStringLiteral("http://127.0.0.1:%1").arg(service->port()));
        QVERIFY(QTest::qWaitFor([&] { return online; }, 10000));

        // 1 + 3 + 4 + 2 bytes: the 512 KiB cuts fall at every offset of the pattern.
        const QString text = QStringLiteral("a\u20ac\U0001F600\u00e9").repeated(300000);
        HttpJson::Reply reply =
            callDevice(pairing.deviceId,
                       {{QStringLiteral("method"), QStringLiteral("echo")},
                        {QStringLiteral("params"), QJsonObject{{QStringLiteral("text"), text}}}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(seen, text);
        QCOMPARE(reply.json().value(QStringLiteral("result")).toObject(),
                 (QJsonObject{{QStringLiteral("length"), text.size()}}));

        reply = http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(pairing.deviceId),
                           QJsonObject{{QStringLiteral("method"), QStringLiteral("big")}}, 120000);
        QCOMPARE(reply.status, 200);
        QVERIFY(reply.body.startsWith("{\"ok\":true,\"req_id\":\""));
        QVERIFY(reply.body.endsWith(",\"result\":" + big + ",\"type\":\"result\"}"));
        QVERIFY(reply.body.size() < big.size() + 100);
    }

    void unknownPathsAnswer404() {
        const HttpJson::Reply reply = http->get(QStringLiteral("/api/v1/nothing"));
        QCOMPARE(reply.status, 404);
        QVERIFY(reply.json().value(QStringLiteral("error")).isString());
        QVERIFY(rawUpgrade(service->port(), "/elsewhere").startsWith("HTTP/1.1 404 "));
    }

    void oversizedRequestHeadIsRefused() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, service->port());
        socket.write("GET /api/v1/agent/devices HTTP/1.1\r\nX-Padding: " +
                     QByteArray(FrontDoor::maxHeadBytes + 100, 'x'));
        QByteArray answer;
        QTRY_VERIFY((answer += socket.readAll()).contains("\r\n\r\n"));
        QVERIFY2(answer.startsWith("HTTP/1.1 431 "), answer.constData());
        QTRY_COMPARE(socket.state(), QAbstractSocket::UnconnectedState);
        // The service goes on serving.
        QCOMPARE(http->get(QStringLiteral("/api/v1/agent/devices")).status, 200);
    }

    void stateFileCarriesDevicesAcrossRestarts() {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("state.json"));
        cleanup();
        service = std::make_unique<DevService>();
        QString error;
        QVERIFY2(service->useStateFile(path, error), qPrintable(error));
        QVERIFY(service->listen(QHostAddress::LocalHost, 0, error));
        http =
            std::make_unique<HttpJson>(QStringLiteral("http://127.0.0.1:%1").arg(service->port()));
        const Pairing pairing = pair(QStringLiteral("Kept"));
        QVERIFY(!pairing.token.isEmpty());
        QCOMPARE(QFile::permissions(path) & (QFile::ReadOther | QFile::ReadGroup),
                 QFile::Permissions());

        cleanup();
        service = std::make_unique<DevService>();
        QVERIFY2(service->useStateFile(path, error), qPrintable(error));
        QVERIFY(service->listen(QHostAddress::LocalHost, 0, error));
        http =
            std::make_unique<HttpJson>(QStringLiteral("http://127.0.0.1:%1").arg(service->port()));
        Device device;
        QVERIFY(device.open(service->port(), pairing.token));
        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        QCOMPARE(devices[0].toObject().value(QStringLiteral("device_name")),
                 QJsonValue(QStringLiteral("Kept")));

        QFile broken(dir.filePath(QStringLiteral("broken.json")));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write("[]");
        broken.close();
        DevService other;
        QVERIFY(!other.useStateFile(broken.fileName(), error));
    }
};

QTEST_GUILESS_MAIN(DevServiceTest)
#include "tst_devservice.moc"
