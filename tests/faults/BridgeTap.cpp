#include "BridgeTap.h"

#include <QJsonDocument>
#include <QTcpSocket>

#include <chrono>

namespace {

constexpr qsizetype keptPayload = 1 << 20;

} // namespace

struct BridgeTap::Link {
    qsizetype index = 0;
    QTcpSocket* companion = nullptr;
    QTcpSocket* service = nullptr;
    QByteArray waiting; // from the companion, before the service's side is connected
    WebSocketStream request{WebSocketStream::Side::Request};
    WebSocketStream answer{WebSocketStream::Side::Answer};
    bool ended = false;
};

qint64 BridgeTap::Connection::helloAt() const {
    for (const Message& message : messages) {
        if (message.fromService && message.type == u"hello") {
            return message.at;
        }
    }
    return -1;
}

BridgeTap::BridgeTap(quint16 servicePort, QObject* parent)
    : QObject(parent), m_servicePort(servicePort) {
    connect(&m_server, &QTcpServer::newConnection, this, &BridgeTap::accept);
}

BridgeTap::~BridgeTap() {
    for (const std::unique_ptr<Link>& link : m_links) {
        for (QTcpSocket* socket : {link->companion, link->service}) {
            if (socket) {
                socket->disconnect(this);
                socket->abort();
                delete socket;
            }
        }
    }
}

qint64 BridgeTap::now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool BridgeTap::listen(quint16 port) {
    if (!m_server.listen(QHostAddress::LocalHost, port)) {
        return false;
    }
    m_port = m_server.serverPort();
    return true;
}

void BridgeTap::stopListening() {
    m_server.close();
}

int BridgeTap::openConnections() const {
    int open = 0;
    for (const Connection& connection : m_connections) {
        open += connection.closedAt < 0 ? 1 : 0;
    }
    return open;
}

qint64 BridgeTap::pingCompanion(qsizetype index, const QByteArray& payload) {
    if (index < 0 || index >= qsizetype(m_links.size()) || payload.size() > 125) {
        return -1;
    }
    Link& link = *m_links[std::size_t(index)];
    if (link.ended || !link.answer.betweenFrames() ||
        link.companion->state() != QAbstractSocket::ConnectedState) {
        return -1;
    }
    // A final, unmasked ping frame: the service's side never masks.
    QByteArray frame;
    frame.append(char(0x89));
    frame.append(char(payload.size()));
    frame.append(payload);
    link.companion->write(frame);
    link.companion->flush();
    return now();
}

void BridgeTap::accept() {
    while (QTcpSocket* companion = m_server.nextPendingConnection()) {
        auto link = std::make_unique<Link>();
        Link* raw = link.get();
        raw->index = m_connections.size();
        raw->companion = companion;
        raw->service = new QTcpSocket();
        companion->setParent(nullptr);
        m_connections.append(Connection{});
        m_connections.back().openedAt = now();
        m_links.push_back(std::move(link));

        connect(companion, &QTcpSocket::readyRead, this, [this, raw] { fromCompanion(raw); });
        connect(companion, &QTcpSocket::disconnected, this,
                [this, raw] { end(raw, QStringLiteral("companion")); });
        connect(raw->service, &QTcpSocket::connected, this,
                [raw] { raw->service->write(std::exchange(raw->waiting, {})); });
        connect(raw->service, &QTcpSocket::readyRead, this, [this, raw] { fromService(raw); });
        connect(raw->service, &QTcpSocket::disconnected, this,
                [this, raw] { end(raw, QStringLiteral("service")); });
        connect(raw->service, &QTcpSocket::errorOccurred, this,
                [this, raw](QAbstractSocket::SocketError error) {
                    if (error == QAbstractSocket::ConnectionRefusedError) {
                        end(raw, QStringLiteral("unreachable"));
                    } else if (error != QAbstractSocket::RemoteHostClosedError) {
                        end(raw, QStringLiteral("service"));
                    }
                });
        raw->service->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        companion->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        raw->service->connectToHost(QHostAddress::LocalHost, m_servicePort);
        if (companion->bytesAvailable() > 0) {
            fromCompanion(raw);
        }
    }
}

void BridgeTap::fromCompanion(Link* link) {
    const QByteArray bytes = link->companion->readAll();
    if (bytes.isEmpty() || link->ended) {
        return;
    }
    const bool hadHead = link->request.headComplete();
    link->request.feed(bytes);
    if (!hadHead && link->request.headComplete()) {
        m_connections[link->index].requestHead = link->request.head();
    }
    record(link, link->request, false);
    if (link->service->state() == QAbstractSocket::ConnectedState) {
        link->service->write(bytes);
    } else {
        link->waiting.append(bytes);
    }
}

void BridgeTap::fromService(Link* link) {
    const QByteArray bytes = link->service->readAll();
    if (bytes.isEmpty() || link->ended) {
        return;
    }
    Connection& connection = m_connections[link->index];
    const bool hadHead = link->answer.headComplete();
    link->answer.feed(bytes);
    if (!hadHead && link->answer.headComplete()) {
        connection.status = link->answer.status();
        connection.answeredAt = now();
    }
    record(link, link->answer, true);
    link->companion->write(bytes);
}

void BridgeTap::record(Link* link, WebSocketStream& stream, bool fromService) {
    Connection& connection = m_connections[link->index];
    for (WebSocketStream::Message& message : stream.takeMessages()) {
        Message entry;
        entry.at = now();
        entry.fromService = fromService;
        entry.opcode = message.opcode;
        if (message.opcode == 1 || message.opcode == 2) {
            const QJsonDocument document = QJsonDocument::fromJson(message.payload);
            entry.object = document.object();
            entry.type = entry.object.value(QStringLiteral("type")).toString();
            entry.reqId = entry.object.value(QStringLiteral("req_id")).toString();
        }
        entry.size = message.payload.size();
        entry.payload = message.payload.size() <= keptPayload ? std::move(message.payload)
                                                              : message.payload.left(4096);
        connection.messages.append(std::move(entry));
    }
}

void BridgeTap::end(Link* link, const QString& by) {
    if (link->ended) {
        return;
    }
    // Whatever either side sent last is recorded and passed on before the other side is closed.
    fromCompanion(link);
    fromService(link);
    link->ended = true;
    Connection& connection = m_connections[link->index];
    connection.closedAt = now();
    connection.endedBy = by;
    if (by == u"companion") {
        link->service->disconnectFromHost();
    } else {
        if (by == u"unreachable") {
            link->companion->abort();
        } else {
            link->companion->disconnectFromHost();
        }
    }
}
