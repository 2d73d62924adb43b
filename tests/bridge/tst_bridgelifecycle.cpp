// The bridge connection's life: URL, handshake, keep-alive, back-off and disconnecting, on a
// manual clock against real sockets on 127.0.0.1.

#include "BridgeFixture.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QUrlQuery>

namespace {

using Status = std::pair<bool, QString>;

quint16 closedPort() {
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0)) {
        return 0;
    }
    const quint16 port = server.serverPort();
    server.close();
    return port;
}

QString reconnecting(int seconds) {
    return QStringLiteral("Reconnecting in %1s\u2026").arg(seconds);
}

const QString connecting = QStringLiteral("Connecting\u2026");

} // namespace

class BridgeLifecycleTest : public QObject {
    Q_OBJECT

    std::unique_ptr<BridgeFixture> f;

    // Waits until the status list has `count` entries, then a little longer to catch extras.
    bool settlesAt(qsizetype count) {
        if (!QTest::qWaitFor([&] { return f->statuses.size() >= count; })) {
            return false;
        }
        QTest::qWait(50);
        return f->statuses.size() == count;
    }

    QStringList pingFrames() const {
        QStringList pings;
        for (const QString& frame : f->service.frames) {
            if (frame.contains(QStringLiteral("ping"))) {
                pings.append(frame);
            }
        }
        return pings;
    }

private slots:
    void init() { f = std::make_unique<BridgeFixture>(); }
    void cleanup() { f.reset(); }

    void wsUrl_data() {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("url");
        const QString path = QStringLiteral("/api/v1/devices/bridge?token=");
        QTest::newRow("http with port")
            << QStringLiteral("http://127.0.0.1:8080") << QStringLiteral("t0k")
            << QStringLiteral("ws://127.0.0.1:8080") + path + QStringLiteral("t0k");
        QTest::newRow("https") << QStringLiteral("https://api.quillmar.app") << QStringLiteral("t")
                               << QStringLiteral("wss://api.quillmar.app") + path + u't';
        QTest::newRow("https with port")
            << QStringLiteral("https://h.example:8443/") << QStringLiteral("t")
            << QStringLiteral("wss://h.example:8443") + path + u't';
        QTest::newRow("other scheme")
            << QStringLiteral("ftp://files.example") << QStringLiteral("t")
            << QStringLiteral("wss://files.example") + path + u't';
        QTest::newRow("ws scheme") << QStringLiteral("ws://h.example") << QStringLiteral("t")
                                   << QStringLiteral("wss://h.example") + path + u't';
        QTest::newRow("http in capitals")
            << QStringLiteral("HTTP://h.example") << QStringLiteral("t")
            << QStringLiteral("wss://h.example") + path + u't';
        QTest::newRow("no scheme, host") << QStringLiteral("//h.example:81") << QStringLiteral("t")
                                         << QStringLiteral("wss://h.example:81") + path + u't';
        QTest::newRow("no scheme, no host") << QStringLiteral("h.example") << QStringLiteral("t")
                                            << QStringLiteral("wss:/api/v1/devices/bridge?token=t");
        QTest::newRow("path, query and fragment dropped")
            << QStringLiteral("http://user:pw@h.example:81/some/path/?x=1&token=old#frag")
            << QStringLiteral("t") << QStringLiteral("ws://user:pw@h.example:81") + path + u't';
        QTest::newRow("token escaped")
            << QStringLiteral("https://h.example") << QStringLiteral("a+b/c=d&e f?\u00e9#%")
            << QStringLiteral("wss://h.example") + path +
                   QStringLiteral("a%2Bb%2Fc%3Dd%26e%20f%3F%C3%A9%23%25");
        QTest::newRow("unreserved kept")
            << QStringLiteral("https://h.example") << QStringLiteral("Ab9-._~")
            << QStringLiteral("wss://h.example") + path + QStringLiteral("Ab9-._~");
        QTest::newRow("empty token") << QStringLiteral("https://h.example") << QString()
                                     << QStringLiteral("wss://h.example") + path;
    }

    void wsUrl() {
        QFETCH(QString, base);
        QFETCH(QString, token);
        QFETCH(QString, url);
        const std::optional<QUrl> built = BridgeClient::wsURL(base, token);
        QVERIFY(built);
        QCOMPARE(built->toString(QUrl::FullyEncoded), url);
        QCOMPARE(QUrlQuery(*built).queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded),
                 token);
    }

    void badApiUrlReportsOnceWithoutTimerOrRetry_data() {
        QTest::addColumn<QString>("base");
        QTest::newRow("blank in host") << QStringLiteral("http://exa mple.com");
        QTest::newRow("open bracket") << QStringLiteral("http://[::1");
        QTest::newRow("bad port") << QStringLiteral("http://h.example:99999");
        QTest::newRow("bad escape") << QStringLiteral("http://h.example/%zz");
        QTest::newRow("empty") << QString();
    }

    void badApiUrlReportsOnceWithoutTimerOrRetry() {
        QFETCH(QString, base);
        QVERIFY(!BridgeClient::wsURL(base, QStringLiteral("t")));
        f->client->connect(QStringLiteral("t"), base);
        QCOMPARE(f->statuses, QList<Status>{Status(false, QStringLiteral("Bad API URL"))});
        QVERIFY(f->scheduler->pendingDelays().isEmpty());
        f->scheduler->advance(std::chrono::minutes(10));
        QTest::qWait(50);
        QCOMPARE(f->statuses.size(), 1);
        QCOMPARE(f->client->reconnectAttempt(), 0);
    }

    void handshakeCarriesTokenAndOnlyOurUserAgent() {
        f->client->connect(QStringLiteral("s3cret+/="), f->service.apiBase());
        QTRY_VERIFY(f->service.hasOpenSocket());
        const QNetworkRequest request = f->service.request();
        QCOMPARE(request.rawHeader("User-Agent"),
                 QByteArrayLiteral("QuillmarCompanion/0.1 (Linux)"));
        // The WebSocket handshake's own headers, and nothing else of ours.
        QCOMPARE(request.rawHeaderList(),
                 (QList<QByteArray>{"Host", "Upgrade", "Connection", "Sec-WebSocket-Key",
                                    "Sec-WebSocket-Version", "User-Agent"}));
        QCOMPARE(request.url().path(), QStringLiteral("/api/v1/devices/bridge"));
        QCOMPARE(
            QUrlQuery(request.url()).queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded),
            QStringLiteral("s3cret+/="));
        QCOMPARE(f->statuses, QList<Status>{Status(false, connecting)});
        // Connected is not online: that waits for hello.
        QTest::qWait(50);
        QCOMPARE(f->statuses.size(), 1);
    }

    void backOffRunsTwoFourEightSixteenThenThirty() {
        const quint16 port = closedPort();
        QVERIFY(port != 0);
        f->client->connect(QStringLiteral("t"), QStringLiteral("http://127.0.0.1:%1").arg(port));
        QStringList expected{connecting};
        const QList<int> delays{2, 4, 8, 16, 30, 30, 30, 30};
        for (qsizetype n = 0; n < delays.size(); ++n) {
            expected.append(reconnecting(delays[n]));
            QVERIFY2(settlesAt(expected.size()), qPrintable(f->texts().join(u'|')));
            QCOMPARE(f->texts(), expected);
            QCOMPARE(f->client->reconnectAttempt(), n + 1);
            // Exactly one timer runs while waiting: the reconnection (no keep-alive).
            QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{delays[n] * 1000});
            f->scheduler->advance(std::chrono::milliseconds(delays[n] * 1000 - 1));
            QCOMPARE(f->texts(), expected);
            f->scheduler->advance(std::chrono::milliseconds(1));
            expected.append(connecting);
            QCOMPARE(f->texts(), expected);
        }
        for (const Status& status : f->statuses) {
            QVERIFY(!status.first);
        }
    }

    void delayFormula() {
        const QList<qint64> delays{2, 4, 8, 16, 30, 30, 30};
        for (qsizetype n = 0; n < delays.size(); ++n) {
            QCOMPARE(BridgeClient::reconnectDelaySeconds(n + 1), delays[n]);
        }
        QCOMPARE(BridgeClient::reconnectDelaySeconds(std::numeric_limits<qint64>::max()), 30);
    }

    void refusedConnectionSchedulesOneReconnection() {
        const quint16 port = closedPort();
        f->client->connect(QStringLiteral("t"), QStringLiteral("http://127.0.0.1:%1").arg(port));
        QVERIFY(settlesAt(2));
        QCOMPARE(f->texts(), (QStringList{connecting, reconnecting(2)}));
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{2000});
    }

    void rejectedHandshakeSchedulesOneReconnection() {
        // A service that turns the token away with a plain HTTP 401.
        QTcpServer rejecting;
        QVERIFY(rejecting.listen(QHostAddress::LocalHost, 0));
        int requests = 0;
        connect(&rejecting, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket* socket = rejecting.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [socket, &requests] {
                    if (!socket->peek(4096).contains("\r\n\r\n")) {
                        return;
                    }
                    ++requests;
                    socket->readAll();
                    socket->write("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n"
                                  "Connection: close\r\n\r\n");
                    socket->disconnectFromHost();
                });
            }
        });
        f->client->connect(QStringLiteral("t"),
                           QStringLiteral("http://127.0.0.1:%1").arg(rejecting.serverPort()));
        QVERIFY(settlesAt(2));
        QTest::qWait(100);
        QCOMPARE(f->texts(), (QStringList{connecting, reconnecting(2)}));
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{2000});
        QCOMPARE(requests, 1);

        f->scheduler->advance(std::chrono::seconds(2));
        QVERIFY(settlesAt(4));
        QCOMPARE(f->texts().last(), reconnecting(4));
        QCOMPARE(requests, 2);
    }

    void closedSocketSchedulesOneReconnection_data() {
        QTest::addColumn<bool>("withCloseFrame");
        QTest::newRow("closing handshake") << true;
        QTest::newRow("connection cut") << false;
    }

    void closedSocketSchedulesOneReconnection() {
        QFETCH(bool, withCloseFrame);
        QVERIFY(f->connectAndGreet());
        if (withCloseFrame) {
            f->service.socket()->close(QWebSocketProtocol::CloseCodeGoingAway);
        } else {
            f->service.dropConnection();
        }
        QVERIFY(settlesAt(3));
        QTest::qWait(100);
        QCOMPARE(f->texts(), (QStringList{connecting, QStringLiteral("Connected to Quillmar"),
                                          reconnecting(2)}));
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{2000});
        f->scheduler->advance(std::chrono::seconds(2));
        QTRY_COMPARE(f->service.connectionCount(), 2);
    }

    void handshakeTimesOutAfterSixtySeconds() {
        // Accepts the connection and never answers the handshake.
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
        QList<QTcpSocket*> accepted;
        connect(&silent, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket* socket = silent.nextPendingConnection()) {
                accepted.append(socket);
            }
        });
        f->client->connect(QStringLiteral("t"),
                           QStringLiteral("http://127.0.0.1:%1").arg(silent.serverPort()));
        QTRY_COMPARE(accepted.size(), 1);
        QCOMPARE(f->scheduler->pendingDelays(), (QList<qint64>{30000, 60000}));
        f->scheduler->advance(std::chrono::milliseconds(59999));
        QCOMPARE(f->texts(), QStringList{connecting});
        f->scheduler->advance(std::chrono::milliseconds(1));
        QVERIFY(settlesAt(2));
        QCOMPARE(f->texts(), (QStringList{connecting, reconnecting(2)}));
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{2000});
        QTRY_COMPARE(accepted.front()->state(), QAbstractSocket::UnconnectedState);
    }

    void helloResetsTheBackOff() {
        f->client->connect(QStringLiteral("t"), f->service.apiBase());
        QTRY_VERIFY(f->service.hasOpenSocket());
        // A handshake alone resets nothing.
        f->service.dropConnection();
        QVERIFY(settlesAt(2));
        f->scheduler->advance(std::chrono::seconds(2));
        QTRY_VERIFY(f->service.connectionCount() == 2 && f->service.hasOpenSocket());
        f->service.dropConnection();
        QVERIFY(settlesAt(4));
        QCOMPARE(f->texts().last(), reconnecting(4));

        f->scheduler->advance(std::chrono::seconds(4));
        QTRY_VERIFY(f->service.connectionCount() == 3 && f->service.hasOpenSocket());
        f->service.sendText(QStringLiteral(R"({"type":"hello"})"));
        QVERIFY(settlesAt(6));
        QCOMPARE(f->client->reconnectAttempt(), 0);
        f->service.dropConnection();
        QVERIFY(settlesAt(7));
        QCOMPARE(f->texts(),
                 (QStringList{connecting, reconnecting(2), connecting, reconnecting(4), connecting,
                              QStringLiteral("Connected to Quillmar"), reconnecting(2)}));
    }

    void connectKeepsTheCounterAndReplacesTheWait() {
        const QString base = QStringLiteral("http://127.0.0.1:%1").arg(closedPort());
        f->client->connect(QStringLiteral("t"), base);
        QVERIFY(settlesAt(2));
        f->scheduler->advance(std::chrono::seconds(2));
        QVERIFY(settlesAt(4));
        QCOMPARE(f->client->reconnectAttempt(), 2);

        f->client->connect(QStringLiteral("t"), base);
        QCOMPARE(f->texts().last(), connecting);
        QCOMPARE(f->client->reconnectAttempt(), 2);
        QVERIFY(!f->scheduler->pendingDelays().contains(4000));
        QVERIFY(settlesAt(6));
        QCOMPARE(f->texts().last(), reconnecting(8));
    }

    void disconnectDuringTheWaitStaysDisconnected() {
        QVERIFY(f->connectAndGreet());
        f->service.dropConnection();
        QVERIFY(settlesAt(3));
        QCOMPARE(f->texts().last(), reconnecting(2));

        f->client->disconnect();
        QCOMPARE(f->statuses.last(), Status(false, QStringLiteral("Disconnected")));
        QVERIFY(f->scheduler->pendingDelays().isEmpty());
        f->scheduler->advance(std::chrono::minutes(10));
        QTest::qWait(100);
        QCOMPARE(f->statuses.size(), 4);
        QCOMPARE(f->service.connectionCount(), 1);
    }

    void disconnectClosesWithGoingAway() {
        QVERIFY(f->connectAndGreet());
        f->client->disconnect();
        QCOMPARE(f->statuses.last(), Status(false, QStringLiteral("Disconnected")));
        QTRY_COMPARE(f->service.closeCodes,
                     QList<int>{int(QWebSocketProtocol::CloseCodeGoingAway)});
        QVERIFY(f->scheduler->pendingDelays().isEmpty());
        f->scheduler->advance(std::chrono::minutes(10));
        QTest::qWait(100);
        QCOMPARE(f->statuses.size(), 3);
        QCOMPARE(f->service.connectionCount(), 1);

        // connect() starts again after a disconnect.
        QVERIFY(f->connectAndGreet());
        QCOMPARE(f->service.connectionCount(), 2);
    }

    void pingsEveryThirtySecondsOnlyWhileOpen() {
        QVERIFY(f->connectAndGreet());
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{30000});
        f->scheduler->advance(std::chrono::milliseconds(29999));
        QTest::qWait(50);
        QVERIFY(pingFrames().isEmpty());
        f->scheduler->advance(std::chrono::milliseconds(1));
        QTRY_COMPARE(pingFrames(), QStringList{QStringLiteral(R"({"type":"ping"})")});
        // The service's WebSocket answers each ping at once; on the manual clock the answer
        // must be let in before the next 30 s pass in one step.
        QTest::qWait(100);
        f->scheduler->advance(std::chrono::seconds(30));
        QTRY_COMPARE(pingFrames().size(), 2);
        QTest::qWait(100);
        f->scheduler->advance(std::chrono::seconds(30));
        QTRY_COMPARE(pingFrames().size(), 3);
        // The service's pong changes nothing.
        f->service.sendText(QStringLiteral(R"({"type":"pong"})"));

        f->service.dropConnection();
        QVERIFY(settlesAt(3));
        QCOMPARE(f->scheduler->pendingDelays(), QList<qint64>{2000});
        f->scheduler->advance(std::chrono::milliseconds(1999));
        QTest::qWait(50);
        QCOMPARE(pingFrames().size(), 3);

        // A new socket starts its own 30 s.
        f->scheduler->advance(std::chrono::milliseconds(1));
        QTRY_VERIFY(f->service.connectionCount() == 2 && f->service.hasOpenSocket());
        f->scheduler->advance(std::chrono::milliseconds(29999));
        QTest::qWait(50);
        QCOMPARE(pingFrames().size(), 3);
        f->scheduler->advance(std::chrono::milliseconds(1));
        QTRY_COMPARE(pingFrames().size(), 4);
        QCOMPARE(f->service.frames.size(), 4); // nothing but pings
    }

    void noPingAfterDisconnect() {
        QVERIFY(f->connectAndGreet());
        f->client->disconnect();
        f->scheduler->advance(std::chrono::minutes(5));
        QTest::qWait(50);
        QVERIFY(pingFrames().isEmpty());
    }

    void destroyedClientEndsQuietly() {
        QVERIFY(f->connectAndGreet());
        f->client.reset();
        f->scheduler = nullptr; // went with the client
        QTRY_COMPARE(f->service.hasOpenSocket(), false);
        QTest::qWait(50);
        QCOMPARE(f->statuses.size(), 2);
    }

    void clientDeletedLaterFromItsStatusCallbackEndsQuietly() {
        const quint16 port = closedPort();
        const QPointer<BridgeClient> client(f->client.get());
        QObject::connect(f->client.get(), &BridgeClient::statusChanged,
                         [this](bool, const QString& text) {
                             if (text.startsWith(u"Reconnecting")) {
                                 f->client.release()->deleteLater();
                                 f->scheduler = nullptr;
                             }
                         });
        f->client->connect(QStringLiteral("t"), QStringLiteral("http://127.0.0.1:%1").arg(port));
        QTRY_VERIFY(!client);
        QTest::qWait(50);
        QCOMPARE(f->texts(), (QStringList{connecting, reconnecting(2)}));
    }
};

QTEST_GUILESS_MAIN(BridgeLifecycleTest)
#include "tst_bridgelifecycle.moc"
