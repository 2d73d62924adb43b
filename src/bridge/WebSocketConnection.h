#pragma once

#include "ConnectionProblem.h"
#include "WebSocketFramer.h"
#include "WebSocketHandshake.h"

#include <QByteArray>
#include <QList>
#include <QNetworkProxy>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslError>
#include <QUrl>

#include <memory>
#include <optional>

class QTcpSocket;
class QTimer;

// One WebSocket client connection over Qt's sockets: the proxy (a CONNECT tunnel, with its
// login), TLS and its trust come from Qt; the handshake and the frames from
// WebSocketHandshake and WebSocketFramer, which judge a text message as a whole, however it is
// fragmented. Qt's own WebSocket class cannot: it rejects a frame that ends inside a character.
// Messages go out as single frames. Ends exactly once, with `ended`; after a close frame sent
// because of the server's close or a broken rule, the socket outlives `ended` for a few seconds
// so that the close frame gets there.
class WebSocketConnection : public QObject {
    Q_OBJECT

public:
    // What an incoming message may weigh; a larger one closes the connection (1009).
    static constexpr qsizetype defaultLargestMessage = qsizetype(64) * 1024 * 1024;

    explicit WebSocketConnection(QObject* parent = nullptr);
    ~WebSocketConnection() override;

    void setProxy(const QNetworkProxy& proxy) { m_proxy = proxy; }
    void setSslConfiguration(const QSslConfiguration& configuration) { m_ssl = configuration; }
    void setLargestMessage(qsizetype bytes) { m_largestMessage = bytes; }
    void addHeader(const QByteArray& name, const QByteArray& value);

    // Connects to a ws: or wss: address. `ended` follows on the event loop if it cannot.
    void open(const QUrl& url);
    bool isOpen() const { return m_state == State::Open; }

    // One text message, as one frame. Nothing happens unless the connection is open.
    void sendText(QByteArrayView utf8);
    void ping(QByteArrayView payload = {});
    // Starts the closing handshake; the socket is dropped when the server answers, or after a
    // few seconds. `ended` is not emitted for a close the companion started.
    void close(quint16 code, const QByteArray& reason = QByteArray());
    // Drops the connection at once, without a word to the server and without `ended`.
    void abort();

    // The bytes written but not yet taken by the system (for tests and flow).
    qint64 bytesToWrite() const;

signals:
    void connected();
    void textReceived(const QByteArray& utf8);
    void binaryReceived(const QByteArray& bytes);
    void pongReceived(const QByteArray& payload);
    // Any frame at all arrived: the connection is alive.
    void activity();
    // The connection could not be made, broke, or the service closed it.
    void ended(const ConnectionProblem& problem);

private:
    enum class State { Idle, Connecting, Handshaking, Open, Closing, Ended };

    void startHandshake();
    void readAvailable();
    void handleEvents(const QList<WebSocketFramer::Event>& events);
    void socketFailed();
    // How the socket goes when the connection ends: dropped at once, or left to deliver what
    // is still queued (a close frame) while the server finishes its side.
    enum class SocketEnd { Drop, Linger };
    void finish(const ConnectionProblem& problem, SocketEnd socketEnd = SocketEnd::Drop);
    void lingerSocket();
    void finishLater(const ConnectionProblem& problem);
    void write(WebSocketFramer::Opcode opcode, QByteArrayView payload);
    ConnectionProblem describeSocketError() const;
    void dropSocket();
    // Stops the close timer and takes the socket from this connection; null when there is none.
    QTcpSocket* detachSocket();

    QNetworkProxy m_proxy = QNetworkProxy(QNetworkProxy::NoProxy);
    // Unset: Qt's default, made only for a wss: connection.
    std::optional<QSslConfiguration> m_ssl;
    qsizetype m_largestMessage = defaultLargestMessage;
    QList<QPair<QByteArray, QByteArray>> m_headers;

    State m_state = State::Idle;
    QTcpSocket* m_socket = nullptr; // a QSslSocket for wss:
    std::unique_ptr<WebSocketHandshake> m_handshake;
    std::unique_ptr<WebSocketFramer> m_framer;
    QList<QSslError> m_sslErrors;
    int m_proxyLogins = 0;
    bool m_closeStartedHere = false;
    QTimer* m_closeTimer = nullptr;
};
