// WebSocketConnection against a server on 127.0.0.1 scripted byte by byte: what the client
// writes, and when it lets the connection go, when the server breaks the rules or closes.

#include "WebSocketConnection.h"

#include <QCryptographicHash>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <memory>

namespace {

// The frames a client wrote, unmasked: opcode and payload of each whole one.
QList<QPair<int, QByteArray>> clientFrames(const QByteArray& bytes) {
    QList<QPair<int, QByteArray>> frames;
    qsizetype at = 0;
    while (bytes.size() - at >= 6) {
        const auto byte = [&](qsizetype i) { return quint64(uchar(bytes.at(at + i))); };
        quint64 length = byte(1) & 0x7F;
        qsizetype head = 2;
        if (length == 126) {
            length = (byte(2) << 8) | byte(3);
            head = 4;
        } else if (length == 127) {
            length = 0;
            for (int i = 0; i < 8; ++i) {
                length = (length << 8) | byte(2 + i);
            }
            head = 10;
        }
        if (quint64(bytes.size() - at) < head + 4 + length) {
            break;
        }
        const QByteArray key = bytes.mid(at + head, 4);
        QByteArray payload = bytes.mid(at + head + 4, qsizetype(length));
        for (qsizetype i = 0; i < payload.size(); ++i) {
            payload[i] = char(payload[i] ^ key[i % 4]);
        }
        frames.append({int(byte(0) & 0x0F), payload});
        at += head + 4 + qsizetype(length);
    }
    return frames;
}

QByteArray closeBody(quint16 code) {
    QByteArray body;
    body.append(char(code >> 8));
    body.append(char(code & 0xFF));
    return body;
}

} // namespace

class WebSocketConnectionTest : public QObject {
    Q_OBJECT

    QTcpServer server;
    QTcpSocket* peer = nullptr;
    bool peerDisconnected = false;
    QByteArray received;
    std::unique_ptr<WebSocketConnection> connection;
    QList<ConnectionProblem> ended;

    // Opens the connection and answers its upgrade as a server would; what the client writes
    // next collects in `received`.
    bool open() {
        connection = std::make_unique<WebSocketConnection>();
        QObject::connect(connection.get(), &WebSocketConnection::ended,
                         [this](const ConnectionProblem& problem) { ended.append(problem); });
        connection->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(server.serverPort())));
        if (!QTest::qWaitFor([&] { return server.hasPendingConnections(); }, 5000)) {
            return false;
        }
        peer = server.nextPendingConnection();
        QObject::connect(peer, &QTcpSocket::readyRead, [this] { received += peer->readAll(); });
        QObject::connect(peer, &QTcpSocket::disconnected, [this] { peerDisconnected = true; });
        if (!QTest::qWaitFor([&] { return received.contains("\r\n\r\n"); }, 5000)) {
            return false;
        }
        const qsizetype start = received.indexOf("Sec-WebSocket-Key: ") + 19;
        const QByteArray key = received.mid(start, received.indexOf('\r', start) - start);
        const QByteArray accept =
            QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11",
                                     QCryptographicHash::Sha1)
                .toBase64();
        received.clear();
        peer->write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                    "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
                    accept + "\r\n\r\n");
        return QTest::qWaitFor([&] { return connection->isOpen(); }, 5000);
    }

private slots:
    void initTestCase() { QVERIFY(server.listen(QHostAddress::LocalHost, 0)); }

    void init() {
        received.clear();
        ended.clear();
        peerDisconnected = false;
        QVERIFY(open());
    }

    void cleanup() {
        connection.reset();
        delete peer;
        peer = nullptr;
    }

    // A broken frame after the client's own close: no second close frame (one per
    // connection), and no `ended`, as for any close the companion started.
    void brokenFrameWhileClosing() {
        connection->close(WebSocketFramer::goingAway);
        QVERIFY(QTest::qWaitFor([&] { return clientFrames(received).size() == 1; }, 5000));
        peer->write(QByteArray("\xC1\x00", 2));
        QVERIFY(QTest::qWaitFor([&] { return peerDisconnected; }, 5000));
        const auto frames = clientFrames(received);
        QCOMPARE(frames.size(), 1);
        QCOMPARE(frames.front().first, 0x8);
        QCOMPARE(frames.front().second, closeBody(1001));
        QVERIFY(ended.isEmpty());
    }

    // After a broken rule the client sends its close and lets the server end the connection,
    // as the server should first; it does not cut it under the close frame.
    void failureWaitsForTheServerToEnd() {
        peer->write(QByteArray("\x83\x00", 2)); // an opcode no one defined
        QVERIFY(QTest::qWaitFor([&] { return clientFrames(received).size() == 1; }, 5000));
        QCOMPARE(clientFrames(received).front().first, 0x8);
        QCOMPARE(clientFrames(received).front().second.left(2), closeBody(1002));
        QCOMPARE(ended.size(), 1);
        QCOMPARE(ended.front().kind(), ConnectionProblem::Kind::Unreadable);
        // Gone as an object, the connection still holds the socket until the server ends it.
        connection.reset();
        QTest::qWait(300);
        QVERIFY(!peerDisconnected);
        // Whatever the server still sends is read and dropped, not answered by a reset.
        peer->write(QByteArray(100000, 'x'));
        peer->write(QByteArray("\x88\x02\x03\xEA", 4));
        QTest::qWait(100);
        QVERIFY(!peerDisconnected);
        peer->disconnectFromHost();
        QVERIFY(QTest::qWaitFor([&] { return peer->state() == QAbstractSocket::UnconnectedState; },
                                5000));
        QCOMPARE(clientFrames(received).size(), 1);
    }

    // The same when the server closes: the client answers with the same code and waits.
    void serverCloseIsAnsweredAndAwaited() {
        peer->write(QByteArray("\x88\x06\x0F\xA0"
                               "bye!",
                               8));
        QVERIFY(QTest::qWaitFor([&] { return clientFrames(received).size() == 1; }, 5000));
        QCOMPARE(clientFrames(received).front().first, 0x8);
        QCOMPARE(clientFrames(received).front().second, closeBody(4000));
        QCOMPARE(ended.size(), 1);
        QCOMPARE(ended.front().kind(), ConnectionProblem::Kind::ClosedByService);
        QCOMPARE(ended.front().detail(), QStringLiteral("bye!"));
        QTest::qWait(300);
        QVERIFY(!peerDisconnected);
        peer->disconnectFromHost();
        QVERIFY(QTest::qWaitFor([&] { return peer->state() == QAbstractSocket::UnconnectedState; },
                                5000));
    }
};

QTEST_GUILESS_MAIN(WebSocketConnectionTest)
#include "tst_websocketconnection.moc"
