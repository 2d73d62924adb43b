#include "FakeService.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

FakeService::FakeService()
    : m_server(QStringLiteral("fake-quillmar"), QWebSocketServer::NonSecureMode) {
    QVERIFY(m_server.listen(QHostAddress::LocalHost, 0));
    connect(&m_server, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket* socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            // As the dev service: the client's largest answers must get through.
            socket->setMaxAllowedIncomingMessageSize(QWebSocket::maxIncomingMessageSize());
            socket->setMaxAllowedIncomingFrameSize(QWebSocket::maxIncomingFrameSize());
            ++m_connections;
            m_socket = socket;
            m_request = socket->request();
            connect(socket, &QWebSocket::textMessageReceived, this,
                    [this](const QString& text) { frames.append(text); });
            connect(socket, &QWebSocket::binaryMessageReceived, this,
                    [this](const QByteArray&) { ++binaryFrames; });
            connect(socket, &QWebSocket::disconnected, this, [this, socket] {
                closeCodes.append(int(socket->closeCode()));
                socket->deleteLater();
            });
        }
    });
}

QString FakeService::apiBase() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(port());
}

bool FakeService::hasOpenSocket() const {
    return m_socket && m_socket->state() == QAbstractSocket::ConnectedState;
}

QList<QJsonObject> FakeService::frameObjects(const QString& type) const {
    QList<QJsonObject> objects;
    for (const QString& frame : frames) {
        const QJsonObject object = QJsonDocument::fromJson(frame.toUtf8()).object();
        if (object.value(QStringLiteral("type")).toString() == type) {
            objects.append(object);
        }
    }
    return objects;
}

void FakeService::sendText(const QString& text) {
    QVERIFY(hasOpenSocket());
    m_socket->sendTextMessage(text);
}

void FakeService::sendBinary(const QByteArray& bytes) {
    QVERIFY(hasOpenSocket());
    m_socket->sendBinaryMessage(bytes);
}

void FakeService::dropConnection() {
    if (m_socket) {
        m_socket->abort();
    }
}
