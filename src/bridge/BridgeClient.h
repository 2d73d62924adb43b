#pragma once

#include "BridgeCallHandler.h"
#include "BridgeScheduler.h"
#include "ConnectionProblem.h"
#include "ToolResult.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QQueue>
#include <QString>
#include <QUrl>

#include <chrono>
#include <memory>
#include <optional>

class QNetworkProxy;
class WebSocketConnection;

// The companion's one WebSocket to the service. Opens it from the API base and the device token,
// answers the service's tool calls strictly one at a time, sends a keep-alive ping every 30 s,
// and reconnects with back-off after any failure. Everything runs on the owner's thread; the
// owner learns about the connection only through statusChanged.
class BridgeClient : public QObject {
    Q_OBJECT

public:
    static constexpr std::chrono::seconds keepAliveInterval{30};
    static constexpr std::chrono::seconds requestTimeout{60};
    static constexpr std::chrono::seconds longestReconnectDelay{30};
    // After a keep-alive ping, how long the connection may stay silent before it counts as dead.
    static constexpr std::chrono::seconds answerTimeout{20};

    // `calls` runs the service's tool calls and must outlive the client; without one every call
    // is answered as an unknown method.
    explicit BridgeClient(BridgeCallHandler* calls, QObject* parent = nullptr);
    // Takes its timers from `scheduler` (tests step a manual clock through it).
    BridgeClient(BridgeCallHandler* calls, std::unique_ptr<BridgeScheduler> scheduler,
                 QObject* parent = nullptr);
    ~BridgeClient() override;

    // Stores the base and token and opens a socket. Keeps the reconnect counter; closes a socket
    // that is still open (it would otherwise linger unread) and drops a pending reconnection.
    void connect(const QString& token, const QString& apiBase);
    // Closes with 1001 (going away) and stays down until the next connect().
    void disconnect();

    // Reconnections scheduled since the last `hello`.
    qint64 reconnectAttempt() const { return m_reconnectAttempt; }

    // Why the last attempt failed or the connection was lost; none once the service has said
    // hello.
    const ConnectionProblem& problem() const { return m_problem; }

    // The device token it connects with (empty before connect()).
    const QString& token() const { return m_token; }

    // Names the socket now open (a new number for each socket), 0 when there is none. An answer
    // the user gives after the socket that brought the question went away must not count.
    quint64 connectionId() const;

    // The bridge URL for a base and a token, or none when the base does not parse.
    static std::optional<QUrl> wsURL(const QString& apiBase, const QString& token);
    // Seconds to wait before the n-th reconnection (n >= 1): 2, 4, 8, 16, 30, 30, ...
    static qint64 reconnectDelaySeconds(qint64 attempt);

signals:
    // problem() changed.
    void problemChanged();
    // Whether the service said hello, and the status in words. A receiver may end the client
    // with deleteLater(), not delete: it runs inside the client's own event handling.
    void statusChanged(bool online, const QString& text);

private:
    struct Frame {
        QPointer<WebSocketConnection> source;
        QByteArray text;
    };

    std::optional<QUrl> wsURL() const;
    void openSocket();
    void openThrough(const QUrl& url, const QNetworkProxy& proxy);
    void attemptFailed(const ConnectionProblem& problem);
    void connectionLost(const ConnectionProblem& problem);
    void closeTask(WebSocketConnection* socket);
    void taskFailed(WebSocketConnection* socket, const ConnectionProblem& problem);
    void enqueue(WebSocketConnection* source, QByteArray text);
    QCoro::Task<> receive();
    QCoro::Task<> handle(QByteArray text);
    QCoro::Task<> handleCall(QJsonObject frame);
    void send(const QJsonObject& frame);
    void sendResult(const QString& reqId, const ToolResult& result);
    void sendText(const QByteArray& utf8);
    void startPing();
    void stopPing();
    void scheduleReconnect();
    void expectAnswer();
    void setProblem(const ConnectionProblem& problem);
    void cancelTimer(BridgeScheduler::TimerId& id);
    void report(bool online, const QString& text);

    BridgeCallHandler* m_calls;
    std::unique_ptr<BridgeScheduler> m_scheduler;
    QPointer<WebSocketConnection> m_task;
    bool m_open = false;
    BridgeScheduler::TimerId m_pingTimer = 0;
    BridgeScheduler::TimerId m_answerTimer = 0;
    BridgeScheduler::TimerId m_reconnectTimer = 0;
    BridgeScheduler::TimerId m_handshakeTimer = 0;
    qint64 m_reconnectAttempt = 0;
    ConnectionProblem m_problem;
    quint64 m_connectionCount = 0;
    // Each opening's number: a late proxy lookup or time-out of an older one changes nothing.
    quint64 m_attempt = 0;
    QString m_token;
    QString m_apiBase;
    bool m_stopped = false;

    // Frames in arrival order; only receive() takes them out, one finished call at a time.
    QQueue<Frame> m_inbox;
    bool m_receiving = false;
};
