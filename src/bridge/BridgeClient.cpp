#include "BridgeClient.h"

#include "FileService.h"
#include "JsonReader.h"
#include "Platform.h"
#include "ProxyChoice.h"
#include "QtBridgeScheduler.h"
#include "TrustStore.h"
#include "Utf8Validator.h"
#include "WebSocketConnection.h"

#include <QFuture>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>
#include <QLoggingCategory>
#include <QTimer>

#include <algorithm>

Q_LOGGING_CATEGORY(lcBridge, "quillmar.bridge", QtWarningMsg)

namespace {

const QString connectingText = QStringLiteral("Connecting\u2026");

// A socket we closed gets this long to finish the closing handshake before it is cut.
constexpr std::chrono::seconds closeGrace{5};

QCoro::Task<ToolResult> unknownMethod(QString method) {
    co_return FileService::errorObject(QStringLiteral("Unknown method: ") + method);
}

} // namespace

BridgeClient::BridgeClient(BridgeCallHandler* calls, QObject* parent)
    : BridgeClient(calls, std::make_unique<QtBridgeScheduler>(), parent) {}

BridgeClient::BridgeClient(BridgeCallHandler* calls, std::unique_ptr<BridgeScheduler> scheduler,
                           QObject* parent)
    : QObject(parent), m_calls(calls), m_scheduler(std::move(scheduler)) {
    if (!m_scheduler) {
        m_scheduler = std::make_unique<QtBridgeScheduler>();
    }
}

BridgeClient::~BridgeClient() {
    // The socket dies with us as a child; its last signals must not reach a half-destroyed client.
    if (m_task) {
        QObject::disconnect(m_task, nullptr, this, nullptr);
    }
}

void BridgeClient::connect(const QString& token, const QString& apiBase) {
    m_apiBase = apiBase;
    m_token = token;
    m_stopped = false;
    // A due reconnection would replace the socket opened right now.
    cancelTimer(m_reconnectTimer);
    openSocket();
}

void BridgeClient::disconnect() {
    m_stopped = true;
    ++m_attempt; // a proxy lookup under way finds nothing to open any more
    cancelTimer(m_reconnectTimer);
    cancelTimer(m_handshakeTimer);
    stopPing();
    if (m_task) {
        closeTask(m_task);
        m_task = nullptr;
    }
    m_inbox.clear();
    report(false, QStringLiteral("Disconnected"));
}

std::optional<QUrl> BridgeClient::wsURL(const QString& apiBase, const QString& token) {
    QUrl url(apiBase, QUrl::StrictMode);
    if (!url.isValid()) {
        return std::nullopt;
    }
    // Only a plain "http" base gets a plain socket; QUrl lower-cases schemes, the base may not.
    const bool plain = url.scheme() == u"http" && apiBase.startsWith(u"http:");
    url.setScheme(plain ? QStringLiteral("ws") : QStringLiteral("wss"));
    url.setPath(QStringLiteral("/api/v1/devices/bridge"));
    // Everything but the unreserved characters is escaped, so no token can change the query's
    // structure or be read differently by the service ('+' as a blank).
    url.setQuery(QStringLiteral("token=") + QString::fromLatin1(QUrl::toPercentEncoding(token)),
                 QUrl::StrictMode);
    url.setFragment(QString());
    if (!url.isValid()) {
        return std::nullopt;
    }
    return url;
}

std::optional<QUrl> BridgeClient::wsURL() const {
    return wsURL(m_apiBase, m_token);
}

qint64 BridgeClient::reconnectDelaySeconds(qint64 attempt) {
    const qint64 exponent = std::clamp<qint64>(attempt, 0, 5);
    return std::min<qint64>(qint64(1) << exponent, longestReconnectDelay.count());
}

void BridgeClient::openSocket() {
    const std::optional<QUrl> url = wsURL();
    if (!url) {
        report(false, QStringLiteral("Bad API URL"));
        return;
    }

    if (m_task) {
        closeTask(m_task);
        m_task = nullptr;
    }
    m_open = false;
    const quint64 attempt = ++m_attempt;

    // The whole opening (finding the proxy, TLS, the handshake) gets one time limit.
    cancelTimer(m_handshakeTimer);
    m_handshakeTimer =
        m_scheduler->schedule(requestTimeout, [self = QPointer<BridgeClient>(this), attempt] {
            if (!self || attempt != self->m_attempt) {
                return;
            }
            self->m_handshakeTimer = 0;
            if (!self->m_open) {
                self->attemptFailed(ConnectionProblem(ConnectionProblem::Kind::NoAnswer,
                                                      QStringLiteral("the opening timed out")));
            }
        });

    // Usually known at once; where the desktop's settings decide, found without blocking.
    QFuture<QNetworkProxy> proxy = ProxyChoice::lookUp(*url);
    if (proxy.isFinished()) {
        openThrough(*url, proxy.result());
    } else {
        proxy.then(this, [self = QPointer<BridgeClient>(this), attempt,
                          target = *url](const QNetworkProxy& chosen) {
            if (self && attempt == self->m_attempt && !self->m_stopped) {
                self->openThrough(target, chosen);
            }
        });
    }
    startPing();
    report(false, connectingText);
}

void BridgeClient::openThrough(const QUrl& url, const QNetworkProxy& proxy) {
    auto* socket = new WebSocketConnection(this);
    socket->addHeader(QByteArrayLiteral("User-Agent"), Platform::userAgent());
    socket->setProxy(proxy);
    if (url.scheme() == u"wss") {
        socket->setSslConfiguration(TrustStore::configuration());
    }
    m_task = socket;
    ++m_connectionCount;
    const QPointer<WebSocketConnection> guard(socket);

    QObject::connect(socket, &WebSocketConnection::textReceived, this,
                     [this, guard](const QByteArray& text) { enqueue(guard, text); });
    // The service speaks text; a binary frame that holds valid UTF-8 is read as text too.
    QObject::connect(socket, &WebSocketConnection::binaryReceived, this,
                     [this, guard](const QByteArray& bytes) {
                         Utf8Validator utf8;
                         utf8.feed(bytes);
                         if (utf8.complete()) {
                             enqueue(guard, bytes);
                         }
                     });
    QObject::connect(socket, &WebSocketConnection::connected, this, [this, guard] {
        if (guard == m_task) {
            m_open = true;
            cancelTimer(m_handshakeTimer);
        }
    });
    QObject::connect(socket, &WebSocketConnection::activity, this, [this, guard] {
        if (guard == m_task) {
            cancelTimer(m_answerTimer);
        }
    });
    QObject::connect(
        socket, &WebSocketConnection::ended, this,
        [this, guard](const ConnectionProblem& problem) { taskFailed(guard, problem); });
    socket->open(url);
}

void BridgeClient::attemptFailed(const ConnectionProblem& problem) {
    if (m_task) {
        taskFailed(m_task, problem);
        return;
    }
    // Still looking for the proxy: that lookup's answer will find a newer attempt and be dropped.
    ++m_attempt;
    connectionLost(problem);
}

quint64 BridgeClient::connectionId() const {
    return m_task && m_open ? m_connectionCount : 0;
}

void BridgeClient::closeTask(WebSocketConnection* socket) {
    QObject::disconnect(socket, nullptr, this, nullptr);
    // It drops its socket when the service answers the close, or after a grace period.
    socket->close(1001);
    QTimer::singleShot(closeGrace + std::chrono::seconds(1), socket, &QObject::deleteLater);
}

void BridgeClient::taskFailed(WebSocketConnection* socket, const ConnectionProblem& problem) {
    // Only the current socket's end counts; the end of a socket already replaced or closed by
    // us changes nothing.
    if (!socket || socket != m_task) {
        return;
    }
    m_task = nullptr;
    m_open = false;
    cancelTimer(m_handshakeTimer);
    cancelTimer(m_answerTimer);
    QObject::disconnect(socket, nullptr, this, nullptr);
    socket->abort();
    socket->deleteLater();
    connectionLost(problem);
}

void BridgeClient::connectionLost(const ConnectionProblem& problem) {
    qCInfo(lcBridge) << "connection ended:" << problem.text() << problem.detail();
    // Known before the status is reported, so that whoever shows the status can say why; the
    // change itself is announced after it.
    const bool changed = !(problem == m_problem);
    m_problem = problem;
    const QPointer<BridgeClient> self(this);
    scheduleReconnect();
    if (self && changed) {
        emit problemChanged();
    }
}

void BridgeClient::setProblem(const ConnectionProblem& problem) {
    if (!(problem == m_problem)) {
        m_problem = problem;
        emit problemChanged();
    }
}

void BridgeClient::enqueue(WebSocketConnection* source, QByteArray text) {
    if (!source || source != m_task) {
        return;
    }
    m_inbox.enqueue(Frame{source, std::move(text)});
    if (!m_receiving) {
        receive();
    }
}

QCoro::Task<> BridgeClient::receive() {
    // The only consumer of the inbox. A frame that arrives while a call is suspended (or while
    // a nested event loop runs inside it) waits here, so calls never overlap or reorder.
    const QPointer<BridgeClient> self(this);
    m_receiving = true;
    while (!m_inbox.isEmpty()) {
        Frame frame = m_inbox.dequeue();
        if (!frame.source || frame.source != m_task) {
            continue; // from a socket that has since failed or been replaced
        }
        try {
            co_await handle(std::move(frame.text));
        } catch (...) {
            // A misbehaving call handler must not wedge the loop; the call goes unanswered.
            qCWarning(lcBridge) << "a frame's handling failed; it goes unanswered";
        }
        if (!self) {
            co_return;
        }
    }
    m_receiving = false;
}

QCoro::Task<> BridgeClient::handle(QByteArray text) {
    QJsonParseError parseError;
    const QJsonDocument document = JsonReader::parse(text, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        qCDebug(lcBridge) << "frame ignored, not a JSON object:" << parseError.errorString();
        co_return;
    }
    const QJsonObject frame = document.object();
    const QJsonValue type = frame.value(QStringLiteral("type"));
    if (frame.isEmpty() || !type.isString()) {
        qCDebug(lcBridge) << "frame ignored, no type";
        co_return;
    }
    const QString name = type.toString();
    if (name == u"hello") {
        m_reconnectAttempt = 0;
        setProblem(ConnectionProblem());
        report(true, QStringLiteral("Connected to Quillmar"));
    } else if (name == u"call") {
        co_await handleCall(frame);
    }
    // "pong" and unknown types: nothing to do, by design no reply.
}

QCoro::Task<> BridgeClient::handleCall(QJsonObject frame) {
    const QPointer<BridgeClient> self(this);
    // The answer belongs to the connection the call came over; another one never gets it.
    const quint64 connection = connectionId();
    // Wrong types count as absent: toString() and toObject() give "" and {} for them.
    const QString reqId = frame.value(QStringLiteral("req_id")).toString();
    const QString method = frame.value(QStringLiteral("method")).toString();
    const QJsonObject params = frame.value(QStringLiteral("params")).toObject();

    QCoro::Task<ToolResult> running =
        m_calls ? m_calls->runCall(method, params) : unknownMethod(method);
    // One plain co_await and the reply built outside the coroutine: GCC 12 mishandles
    // temporaries of non-trivial types in branches around a suspension point.
    const ToolResult result = co_await running;
    if (!self) {
        co_return;
    }
    // Dropped when the socket went away while the tool ran, even if another replaced it.
    if (connectionId() != connection) {
        co_return;
    }
    sendResult(reqId, result);
}

void BridgeClient::sendResult(const QString& reqId, const ToolResult& result) {
    if (result.isJson()) {
        // Spliced in as it is: the same bytes as building the reply object, without turning a
        // big answer into QJsonObject and back. Qt orders the keys ok, req_id, result, type.
        QByteArray reply = QJsonDocument(QJsonObject{{QStringLiteral("ok"), true},
                                                     {QStringLiteral("req_id"), reqId}})
                               .toJson(QJsonDocument::Compact);
        reply.chop(1);
        reply.reserve(reply.size() + result.json().size() + 32);
        reply.append(",\"result\":");
        reply.append(result.json());
        reply.append(",\"type\":\"result\"}");
        sendText(reply);
        return;
    }

    const QJsonObject object = result.toObject();
    QJsonObject reply{{QStringLiteral("type"), QStringLiteral("result")},
                      {QStringLiteral("req_id"), reqId}};
    const QJsonValue error = object.value(QStringLiteral("error"));
    if (error.isString()) {
        reply.insert(QStringLiteral("ok"), false);
        reply.insert(QStringLiteral("error"), error);
    } else {
        reply.insert(QStringLiteral("ok"), true);
        reply.insert(QStringLiteral("result"), object);
    }
    send(reply);
}

void BridgeClient::send(const QJsonObject& frame) {
    sendText(QJsonDocument(frame).toJson(QJsonDocument::Compact));
}

void BridgeClient::sendText(const QByteArray& utf8) {
    if (!m_task || !m_open) {
        qCDebug(lcBridge) << "frame not sent, no open connection";
        return;
    }
    m_task->sendText(utf8);
}

void BridgeClient::startPing() {
    cancelTimer(m_pingTimer);
    m_pingTimer = m_scheduler->schedule(keepAliveInterval, [self = QPointer<BridgeClient>(this)] {
        if (!self) {
            return;
        }
        self->m_pingTimer = 0;
        self->startPing();
        self->send(QJsonObject{{QStringLiteral("type"), QStringLiteral("ping")}});
        self->expectAnswer();
    });
}

void BridgeClient::expectAnswer() {
    if (!m_task || !m_open) {
        return;
    }
    // A WebSocket ping too, which any server answers by itself; whatever arrives next proves
    // the connection alive.
    m_task->ping();
    if (m_answerTimer != 0) {
        return;
    }
    m_answerTimer = m_scheduler->schedule(answerTimeout, [self = QPointer<BridgeClient>(this)] {
        if (!self) {
            return;
        }
        self->m_answerTimer = 0;
        if (self->m_task) {
            self->taskFailed(self->m_task,
                             ConnectionProblem(ConnectionProblem::Kind::NoAnswer,
                                               QStringLiteral("no answer to a keep-alive ping")));
        }
    });
}

void BridgeClient::stopPing() {
    cancelTimer(m_pingTimer);
    cancelTimer(m_answerTimer);
}

void BridgeClient::scheduleReconnect() {
    if (m_stopped) {
        return;
    }
    stopPing();
    ++m_reconnectAttempt;
    const qint64 seconds = reconnectDelaySeconds(m_reconnectAttempt);
    cancelTimer(m_reconnectTimer);
    m_reconnectTimer =
        m_scheduler->schedule(std::chrono::seconds(seconds), [self = QPointer<BridgeClient>(this)] {
            if (!self) {
                return;
            }
            self->m_reconnectTimer = 0;
            if (!self->m_stopped) {
                self->openSocket();
            }
        });
    report(false, QStringLiteral("Reconnecting in %1s\u2026").arg(seconds));
}

void BridgeClient::cancelTimer(BridgeScheduler::TimerId& id) {
    if (id != 0) {
        m_scheduler->cancel(id);
        id = 0;
    }
}

void BridgeClient::report(bool online, const QString& text) {
    // The last step of every caller, so that the owner may do anything in it, connect() and
    // disconnect() included.
    emit statusChanged(online, text);
}
