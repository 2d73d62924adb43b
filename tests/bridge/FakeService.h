#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QWebSocket>
#include <QWebSocketServer>

// The service's side of the bridge for client tests: a WebSocket server on 127.0.0.1 that
// records what the client sends and lets the test speak for the service.
class FakeService : public QObject {
    Q_OBJECT

public:
    FakeService();

    quint16 port() const { return m_server.serverPort(); }
    QString apiBase() const;

    // Connections accepted so far, and the latest one.
    int connectionCount() const { return m_connections; }
    QWebSocket* socket() const { return m_socket; }
    bool hasOpenSocket() const;
    // The handshake of the latest connection.
    QNetworkRequest request() const { return m_request; }

    // Text frames received, in order; binary frames counted separately.
    QStringList frames;
    int binaryFrames = 0;
    // The close code of every connection that ended, as the client gave it.
    QList<int> closeCodes;

    // Frames of type "result" / "ping" parsed, in order.
    QList<QJsonObject> frameObjects(const QString& type) const;

    void sendText(const QString& text);
    void sendBinary(const QByteArray& bytes);
    // Ends the latest connection without a closing handshake.
    void dropConnection();

private:
    QWebSocketServer m_server;
    QPointer<QWebSocket> m_socket;
    QNetworkRequest m_request;
    int m_connections = 0;
};
