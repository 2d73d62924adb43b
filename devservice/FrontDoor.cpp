#include "FrontDoor.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>

namespace {

// A client that does not finish its request head in this time is cut off.
constexpr std::chrono::seconds headDeadline{10};

// The deadline timer hangs on the socket by name; the socket may have timers of its own.
const QString deadlineName = QStringLiteral("quillmar-head-deadline");

void stopDeadline(QTcpSocket* socket) {
    delete socket->findChild<QTimer*>(deadlineName, Qt::FindDirectChildrenOnly);
}

} // namespace

FrontDoor::FrontDoor(QString bridgePath, BridgeGate gate, QObject* parent)
    : QTcpServer(parent), m_bridgePath(std::move(bridgePath)), m_gate(std::move(gate)),
      m_webSockets(QStringLiteral("quillmar-devservice"), QWebSocketServer::NonSecureMode) {
    connect(&m_webSockets, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket* socket = m_webSockets.nextPendingConnection()) {
            emit bridgeOpened(socket);
        }
    });
}

void FrontDoor::incomingConnection(qintptr descriptor) {
    auto* socket = new QTcpSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    // Small request/answer exchanges: do not let Nagle hold back the last segment.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    auto* deadline = new QTimer(socket);
    deadline->setObjectName(deadlineName);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, this, [socket] {
        socket->abort();
        socket->deleteLater();
    });
    deadline->start(headDeadline);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { inspect(socket); });
    connect(socket, &QTcpSocket::disconnected, this, [socket] { socket->deleteLater(); });
}

void FrontDoor::inspect(QTcpSocket* socket) {
    // Peek only: whoever takes the connection reads the request from the start.
    const QByteArray peeked = socket->peek(maxHeadBytes + 4);
    const qsizetype end = peeked.indexOf("\r\n\r\n");
    if (end < 0) {
        if (peeked.size() > maxHeadBytes) {
            refuse(socket, 431, "Request head too large.");
        }
        return;
    }

    // From here on the connection is someone else's.
    socket->disconnect(this);
    stopDeadline(socket);

    const QList<QByteArray> lines = peeked.left(end).split('\n');
    const QList<QByteArray> requestLine = lines.front().trimmed().split(' ');
    bool upgrade = false;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray& line = lines[i];
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "upgrade" &&
            line.mid(colon + 1).toLower().contains("websocket")) {
            upgrade = true;
        }
    }

    if (upgrade && requestLine.size() == 3) {
        const QByteArray& target = requestLine[1];
        const qsizetype question = target.indexOf('?');
        const QByteArray path = question < 0 ? target : target.left(question);
        if (requestLine[0] != "GET" || path != m_bridgePath.toUtf8()) {
            refuse(socket, 404, "No WebSocket here.");
            return;
        }
        const QUrlQuery query(
            QString::fromUtf8(question < 0 ? QByteArray() : target.mid(question + 1)));
        const int status =
            m_gate(query.queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded));
        if (status != 0) {
            refuse(socket, status,
                   status == 401 ? "Unknown device token." : "Bridge connections are refused.");
            return;
        }
        // QWebSocket uses the TCP socket without owning it (it copes with its destruction).
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        m_webSockets.handleConnection(socket);
        return;
    }

    // QHttpServer, bound to this server, picks the socket up from the pending queue; it only
    // starts reading on the next readyRead, and the head is already here.
    addPendingConnection(socket);
    QMetaObject::invokeMethod(
        socket, [socket] { Q_EMIT socket->readyRead(); }, Qt::QueuedConnection);
}

void FrontDoor::refuse(QTcpSocket* socket, int status, const QByteArray& reason) {
    socket->disconnect(this);
    stopDeadline(socket);
    const QByteArray body =
        QJsonDocument(QJsonObject{{QStringLiteral("error"), QString::fromUtf8(reason)}})
            .toJson(QJsonDocument::Compact);
    const QByteArray text = status == 401   ? "Unauthorized"
                            : status == 404 ? "Not Found"
                            : status == 431 ? "Request Header Fields Too Large"
                                            : "Service Unavailable";
    socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + text +
                  "\r\nContent-Type: application/json\r\nContent-Length: " +
                  QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QTimer::singleShot(headDeadline, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
    socket->disconnectFromHost();
}
