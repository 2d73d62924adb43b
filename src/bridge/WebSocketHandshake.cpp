#include "WebSocketHandshake.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

namespace {

// An answer whose headers (with the blank line after them) are larger is not a WebSocket
// server's.
constexpr qsizetype largestAnswer = 16 * 1024;

// Whether a comma-separated header value holds `token`, ignoring case.
bool hasToken(const QByteArray& value, QByteArrayView token) {
    for (const QByteArray& part : value.split(',')) {
        if (part.trimmed().compare(token, Qt::CaseInsensitive) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

WebSocketHandshake::WebSocketHandshake(const QUrl& url,
                                       const QList<QPair<QByteArray, QByteArray>>& headers) {
    QByteArray nonce(16, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(nonce.data()), 4);
    m_key = nonce.toBase64();

    const bool secure = url.scheme() == u"wss";
    const int defaultPort = secure ? 443 : 80;
    QByteArray host = url.host(QUrl::FullyEncoded).toLatin1();
    if (host.contains(':')) {
        host = '[' + host + ']'; // an IPv6 literal
    }
    if (url.port(defaultPort) != defaultPort) {
        host += ':' + QByteArray::number(url.port());
    }
    QByteArray target = url.path(QUrl::FullyEncoded).toLatin1();
    if (target.isEmpty()) {
        target = "/";
    }
    if (url.hasQuery()) {
        target += '?' + url.query(QUrl::FullyEncoded).toLatin1();
    }
    m_request = "GET " + target + " HTTP/1.1\r\nHost: " + host +
                "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + m_key +
                "\r\nSec-WebSocket-Version: 13\r\n";
    for (const auto& [name, value] : headers) {
        m_request += name + ": " + value + "\r\n";
        if (name.compare("Sec-WebSocket-Protocol", Qt::CaseInsensitive) == 0) {
            for (const QByteArray& protocol : value.split(',')) {
                m_protocols.append(protocol.trimmed());
            }
        }
    }
    m_request += "\r\n";
}

QByteArray WebSocketHandshake::acceptFor(const QByteArray& key) {
    return QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11",
                                    QCryptographicHash::Sha1)
        .toBase64();
}

WebSocketHandshake::Outcome WebSocketHandshake::feed(QByteArrayView bytes, QByteArray& rest) {
    m_answer.append(bytes);
    const qsizetype end = m_answer.indexOf("\r\n\r\n");
    // The same limit however the answer was split: headers and their blank line, at most
    // largestAnswer bytes. Without their end yet, one more byte at least is to come.
    if (end < 0 ? m_answer.size() >= largestAnswer : end + 4 > largestAnswer) {
        m_problem = QStringLiteral("an answer whose headers are too long");
        return Outcome::Malformed;
    }
    if (end < 0) {
        return Outcome::Incomplete;
    }
    const QByteArray head = m_answer.left(end);
    rest = m_answer.mid(end + 4);
    m_answer.clear();
    return check(head);
}

WebSocketHandshake::Outcome WebSocketHandshake::check(const QByteArray& head) {
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> statusLine = lines.value(0).trimmed().split(' ');
    bool numeric = false;
    m_status = statusLine.value(1).toInt(&numeric);
    if (!statusLine.value(0).startsWith("HTTP/1.") || !numeric) {
        m_status = 0;
        m_problem = QStringLiteral("an answer that is not HTTP");
        return Outcome::Malformed;
    }
    if (m_status != 101) {
        m_problem = QStringLiteral("HTTP status %1").arg(m_status);
        return Outcome::Refused;
    }
    QByteArray upgrade;
    QByteArray connection;
    QByteArray accept;
    QByteArray extensions;
    QByteArray protocol;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0) {
            continue;
        }
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (name == "upgrade") {
            upgrade = value;
        } else if (name == "connection") {
            connection = value;
        } else if (name == "sec-websocket-accept") {
            accept = value;
        } else if (name == "sec-websocket-extensions") {
            extensions = value;
        } else if (name == "sec-websocket-protocol") {
            protocol = value;
        }
    }
    if (upgrade.compare("websocket", Qt::CaseInsensitive) != 0 ||
        !hasToken(connection, "upgrade")) {
        m_problem = QStringLiteral("an answer that does not upgrade to WebSocket");
        return Outcome::Malformed;
    }
    if (accept != acceptFor(m_key)) {
        m_problem = QStringLiteral("a wrong Sec-WebSocket-Accept");
        return Outcome::Malformed;
    }
    // None were asked for, so none may be used.
    if (!extensions.isEmpty()) {
        m_problem = QStringLiteral("extensions that were not asked for");
        return Outcome::Malformed;
    }
    // At most one subprotocol, and only one that was offered.
    if (!protocol.isEmpty() && !m_protocols.contains(protocol)) {
        m_problem = QStringLiteral("a subprotocol that was not asked for");
        return Outcome::Malformed;
    }
    return Outcome::Accepted;
}
