#include "BridgeHub.h"

#include "JsonReader.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTimer>
#include <QTimerEvent>
#include <QWebSocket>

#include <cctype>
#include <cstring>
#include <optional>

namespace {

QString compact(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// The two top-level members a device's frame is dispatched on. The frame itself goes on to the
// agent as it came, so nothing else of it is needed; QJsonDocument would rebuild every string of
// a long listing or read character by character, which cost more than the whole tool call.
struct FrameHead {
    QString type;  // "" when absent or not a string, as QJsonValue::toString() gives
    QString reqId; // likewise
};

// A scan of strict JSON (RFC 8259) that builds nothing and keeps only the top-level "type" and
// "req_id" strings, the last one of each when repeated, as QJsonDocument does. It vouches only
// for frames that QJsonDocument reads the same way; for anything else (not strict JSON, nested
// very deep, a number with an exponent or very long, an escape in a top-level key or in one of
// the two values) it gives up and the caller parses the frame as before. `utf8` is valid UTF-8,
// being QString::toUtf8()'s output, so the bytes of strings are not checked again.
class FrameScanner {
public:
    static std::optional<FrameHead> scan(const QByteArray& utf8) {
        FrameScanner scanner(utf8);
        return scanner.frame();
    }

private:
    explicit FrameScanner(const QByteArray& utf8)
        : m_at(utf8.constData()), m_end(utf8.constData() + utf8.size()) {}

    // Far below QJsonDocument's own limit, so that everything deeper is left to it.
    static constexpr int depthLimit = 256;

    std::optional<FrameHead> frame() {
        skipSpace();
        if (!take('{')) {
            return std::nullopt;
        }
        FrameHead head;
        skipSpace();
        if (!take('}')) {
            for (;;) {
                const char* key = m_at;
                bool escaped = false;
                if (!string(escaped) || escaped) {
                    return std::nullopt; // an escaped key could still spell "type"
                }
                const QByteArrayView name(key + 1, m_at - key - 2);
                skipSpace();
                if (!take(':')) {
                    return std::nullopt;
                }
                skipSpace();
                QString* field = name == "type"     ? &head.type
                                 : name == "req_id" ? &head.reqId
                                                    : nullptr;
                const char* start = m_at;
                if (field && m_at < m_end && *m_at == '"') {
                    if (!string(escaped) || escaped) {
                        return std::nullopt;
                    }
                    *field = QString::fromUtf8(start + 1, m_at - start - 2);
                } else {
                    if (!value(1)) {
                        return std::nullopt;
                    }
                    if (field) {
                        field->clear();
                    }
                }
                skipSpace();
                if (take('}')) {
                    break;
                }
                if (!take(',')) {
                    return std::nullopt;
                }
                skipSpace();
            }
        }
        skipSpace();
        if (m_at != m_end) {
            return std::nullopt;
        }
        return head;
    }

    bool value(int depth) {
        if (m_at == m_end) {
            return false;
        }
        bool escaped = false;
        switch (*m_at) {
        case '"':
            return string(escaped);
        case '{':
        case '[':
            return container(depth + 1);
        case 't':
            return word("true");
        case 'f':
            return word("false");
        case 'n':
            return word("null");
        default:
            return number();
        }
    }

    bool container(int depth) {
        if (depth > depthLimit) {
            return false;
        }
        const char close = *m_at == '{' ? '}' : ']';
        ++m_at;
        skipSpace();
        if (take(close)) {
            return true;
        }
        for (;;) {
            if (close == '}') {
                bool escaped = false;
                if (m_at == m_end || *m_at != '"' || !string(escaped)) {
                    return false;
                }
                skipSpace();
                if (!take(':')) {
                    return false;
                }
                skipSpace();
            }
            if (!value(depth)) {
                return false;
            }
            skipSpace();
            if (take(close)) {
                return true;
            }
            if (!take(',')) {
                return false;
            }
            skipSpace();
        }
    }

    // At the opening quote; leaves m_at past the closing one.
    bool string(bool& escaped) {
        if (m_at == m_end || *m_at != '"') {
            return false;
        }
        ++m_at;
        while (m_at < m_end) {
            const unsigned char c = static_cast<unsigned char>(*m_at++);
            if (c == '"') {
                return true;
            }
            if (c < 0x20) {
                return false;
            }
            if (c != '\\') {
                continue;
            }
            escaped = true;
            if (m_at == m_end) {
                return false;
            }
            switch (*m_at++) {
            case '"':
            case '\\':
            case '/':
            case 'b':
            case 'f':
            case 'n':
            case 'r':
            case 't':
                break;
            case 'u':
                for (int i = 0; i < 4; ++i) {
                    if (m_at == m_end || !std::isxdigit(static_cast<unsigned char>(*m_at))) {
                        return false;
                    }
                    ++m_at;
                }
                break;
            default:
                return false;
            }
        }
        return false;
    }

    // Integers and plain fractions only, of at most 300 characters: QJsonDocument reads all of
    // those. An exponent could overflow or underflow, which it treats in its own way.
    bool number() {
        const char* start = m_at;
        take('-');
        if (!take('0') && !digits()) {
            return false;
        }
        if (take('.') && !digits()) {
            return false;
        }
        return m_at - start <= 300 && m_at < m_end && *m_at != 'e' && *m_at != 'E';
    }

    bool digits() {
        const char* start = m_at;
        while (m_at < m_end && *m_at >= '0' && *m_at <= '9') {
            ++m_at;
        }
        return m_at != start;
    }

    bool word(const char* literal) {
        const std::size_t length = std::strlen(literal);
        if (std::size_t(m_end - m_at) < length || std::memcmp(m_at, literal, length) != 0) {
            return false;
        }
        m_at += length;
        return true;
    }

    bool take(char c) {
        if (m_at < m_end && *m_at == c) {
            ++m_at;
            return true;
        }
        return false;
    }

    void skipSpace() {
        while (m_at < m_end && (*m_at == ' ' || *m_at == '\n' || *m_at == '\r' || *m_at == '\t')) {
            ++m_at;
        }
    }

    const char* m_at;
    const char* m_end;
};

FrameHead parsedHead(const QByteArray& utf8) {
    const QJsonObject frame = JsonReader::parse(utf8).object();
    return FrameHead{frame.value(QStringLiteral("type")).toString(),
                     frame.value(QStringLiteral("req_id")).toString()};
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
    // The companion's answers can be larger than anything it accepts itself (64 MiB of file
    // grows as JSON). Qt's own limits are far above that today; set so that they stay there.
    socket->setMaxAllowedIncomingMessageSize(QWebSocket::maxIncomingMessageSize());
    socket->setMaxAllowedIncomingFrameSize(QWebSocket::maxIncomingFrameSize());
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

bool BridgeHub::sendRaw(const QString& deviceId, const QByteArray& bytes, bool binary) {
    QWebSocket* socket = m_sockets.value(deviceId);
    if (!socket) {
        return false;
    }
    if (binary) {
        socket->sendBinaryMessage(bytes);
    } else {
        socket->sendTextMessage(QString::fromUtf8(bytes));
    }
    socket->flush();
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
    const QByteArray utf8 = text.toUtf8();
    const std::optional<FrameHead> scanned = FrameScanner::scan(utf8);
    const FrameHead head = scanned ? *scanned : parsedHead(utf8);
    const QString& type = head.type;
    if (type == u"ping") {
        socket->sendTextMessage(
            compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("pong")}}));
        return;
    }
    if (type != u"result") {
        return;
    }
    const QString& reqId = head.reqId;
    const auto it = m_pending.constFind(reqId);
    // Only the connection a call went out on may answer it.
    if (it == m_pending.constEnd() || it->socket != socket || m_sockets.value(deviceId) != socket) {
        return;
    }
    finish(reqId, CallError::None, utf8);
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
