#pragma once

#include <QTcpServer>
#include <QWebSocketServer>

#include <functional>

class QTcpSocket;
class QWebSocket;

// The dev service's one listening port. Reads each connection's request head first: an upgrade
// on the bridge path is answered here (refused with a plain HTTP status, or handed to a
// WebSocket server); everything else goes on, untouched, to the QHttpServer bound to this
// server. QHttpServer 6.4 would accept every upgrade itself, without asking about the token.
class FrontDoor : public QTcpServer {
    Q_OBJECT

public:
    // How an upgrade on the bridge path is answered: 0 lets it through, anything else is the
    // HTTP status of the refusal.
    using BridgeGate = std::function<int(const QString& token)>;

    static constexpr qsizetype maxHeadBytes = 16 * 1024;

    FrontDoor(QString bridgePath, BridgeGate gate, QObject* parent = nullptr);

signals:
    // An accepted bridge, handshake done; the receiver takes ownership.
    void bridgeOpened(QWebSocket* socket);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void inspect(QTcpSocket* socket);
    void refuse(QTcpSocket* socket, int status, const QByteArray& reason);

    QString m_bridgePath;
    BridgeGate m_gate;
    QWebSocketServer m_webSockets;
};
