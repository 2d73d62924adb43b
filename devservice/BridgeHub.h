#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <chrono>
#include <functional>

class QWebSocket;

// The service's end of the bridges: one live WebSocket per device. Greets each new connection
// with `hello`, answers `ping` with `pong`, sends agents' tool calls and matches the `result`
// frames to them by `req_id`. Qt sends a large message in 512 KiB frames cut anywhere, inside
// characters too, as the protocol allows and the companion's own client reads.
class BridgeHub : public QObject {
    Q_OBJECT

public:
    enum class CallError { None, Offline, Timeout, Disconnected };
    // `frame` is the device's result frame exactly as it arrived (only when error is None).
    using CallDone = std::function<void(CallError error, const QByteArray& frame)>;

    explicit BridgeHub(QObject* parent = nullptr);
    ~BridgeHub() override;

    // Takes over `socket`, an accepted bridge of `deviceId`; an older connection of the same
    // device is closed.
    void attach(const QString& deviceId, QWebSocket* socket);
    bool isOnline(const QString& deviceId) const;
    // Cuts the device's connection without a closing handshake, as a lost network would.
    bool drop(const QString& deviceId);
    // Sends `bytes` to the device as one message outside the call protocol (no req_id, no answer
    // awaited): as a binary message, or as a text message of the bytes read as UTF-8. A fault
    // injection for tests. False when the device is offline.
    bool sendRaw(const QString& deviceId, const QByteArray& bytes, bool binary);

    // Sends {"type":"call","req_id":...} plus `fields` (method and params as the agent gave
    // them) and reports once: the answer, or why there is none.
    void call(const QString& deviceId, const QJsonObject& fields, std::chrono::milliseconds timeout,
              CallDone done);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    struct Pending {
        QPointer<QWebSocket> socket;
        CallDone done;
        int timerId = 0;
    };

    void frameReceived(QWebSocket* socket, const QString& deviceId, const QString& text);
    void socketGone(QWebSocket* socket, const QString& deviceId);
    void finish(const QString& reqId, CallError error, const QByteArray& frame);

    QHash<QString, QWebSocket*> m_sockets;
    QHash<QString, Pending> m_pending;
    // Each waiting call's time-out, a plain object timer: no QTimer to create and delete per call.
    QHash<int, QString> m_timeouts;
    QString m_callPrefix;
    quint64 m_lastCall = 0;
};
