#include "BridgeHub.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTimer>
#include <QTimerEvent>
#include <QWebSocket>

namespace {

QString compact(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

BridgeHub::BridgeHub(QObject* parent)
    : QObject(parent),
      // Call ids of a restarted service never collide with the previous run's.
      m_callPrefix(QStringLiteral("req_%1_").arg(QRandomGenerator::system()->generate(), 8, 16,
                                                 QLatin1Char('0'))) {}

BridgeHub::~BridgeHub() {
    for (QWebSocket* socket : std::as_const(m_sockets)) {
        socket->disconnect(this);
    }
}

void BridgeHub::attach(const QString& deviceId, QWebSocket* socket) {
    if (QWebSocket* old = m_sockets.value(deviceId)) {
        socketGone(old, deviceId);
        connect(old, &QWebSocket::disconnected, old, &QObject::deleteLater);
        QTimer::singleShot(std::chrono::seconds(5), old, [old] {
            old->abort();
            old->deleteLater();
        });
        old->close(QWebSocketProtocol::CloseCodeNormal,
                   QStringLiteral("Replaced by a newer connection."));
    }
    socket->setParent(this);
    m_sockets.insert(deviceId, socket);
    connect(
        socket, &QWebSocket::textMessageReceived, this,
        [this, socket, deviceId](const QString& text) { frameReceived(socket, deviceId, text); });
    connect(socket, &QWebSocket::disconnected, this, [this, socket, deviceId] {
        socketGone(socket, deviceId);
        socket->deleteLater();
    });
    socket->sendTextMessage(
        compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("hello")}}));
}

bool BridgeHub::isOnline(const QString& deviceId) const {
    return m_sockets.contains(deviceId);
}

bool BridgeHub::drop(const QString& deviceId) {
    QWebSocket* socket = m_sockets.value(deviceId);
    if (!socket) {
        return false;
    }
    socketGone(socket, deviceId);
    socket->abort();
    socket->deleteLater();
    return true;
}

void BridgeHub::call(const QString& deviceId, const QJsonObject& fields,
                     std::chrono::milliseconds timeout, CallDone done) {
    QWebSocket* socket = m_sockets.value(deviceId);
    if (!socket) {
        done(CallError::Offline, QByteArray());
        return;
    }
    const QString reqId = m_callPrefix + QString::number(++m_lastCall);
    QJsonObject frame = fields;
    frame.insert(QStringLiteral("type"), QStringLiteral("call"));
    frame.insert(QStringLiteral("req_id"), reqId);

    const int timerId = startTimer(timeout, Qt::PreciseTimer);
    m_timeouts.insert(timerId, reqId);
    m_pending.insert(reqId, Pending{socket, std::move(done), timerId});
    socket->sendTextMessage(compact(frame));
    // Out now rather than on the next pass of the event loop: the agent is waiting.
    socket->flush();
}

void BridgeHub::frameReceived(QWebSocket* socket, const QString& deviceId, const QString& text) {
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
    const QJsonObject frame = document.object();
    const QString type = frame.value(QStringLiteral("type")).toString();
    if (type == u"ping") {
        socket->sendTextMessage(
            compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("pong")}}));
        return;
    }
    if (type != u"result") {
        return;
    }
    const QString reqId = frame.value(QStringLiteral("req_id")).toString();
    const auto it = m_pending.constFind(reqId);
    // Only the connection a call went out on may answer it.
    if (it == m_pending.constEnd() || it->socket != socket || m_sockets.value(deviceId) != socket) {
        return;
    }
    finish(reqId, CallError::None, text.toUtf8());
}

// Forgets the connection and fails the calls still waiting on it; the caller disposes of it.
void BridgeHub::socketGone(QWebSocket* socket, const QString& deviceId) {
    if (m_sockets.value(deviceId) == socket) {
        m_sockets.remove(deviceId);
    }
    socket->disconnect(this);
    QStringList orphans;
    for (auto it = m_pending.cbegin(); it != m_pending.cend(); ++it) {
        if (it->socket == socket || !it->socket) {
            orphans.append(it.key());
        }
    }
    for (const QString& reqId : orphans) {
        finish(reqId, CallError::Disconnected, QByteArray());
    }
}

void BridgeHub::timerEvent(QTimerEvent* event) {
    const QString reqId = m_timeouts.value(event->timerId());
    if (reqId.isEmpty()) {
        QObject::timerEvent(event);
        return;
    }
    finish(reqId, CallError::Timeout, QByteArray());
}

void BridgeHub::finish(const QString& reqId, CallError error, const QByteArray& frame) {
    Pending pending = m_pending.take(reqId);
    if (!pending.done) {
        return;
    }
    killTimer(pending.timerId);
    m_timeouts.remove(pending.timerId);
    pending.done(error, frame);
}
