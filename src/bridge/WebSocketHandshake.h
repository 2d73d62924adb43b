#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

// The opening handshake of a WebSocket client (RFC 6455): the upgrade request for a ws: or wss:
// address, and the check of the server's answer. No sockets; the connection feeds it.
class WebSocketHandshake {
public:
    enum class Outcome { Incomplete, Accepted, Refused, Malformed };

    WebSocketHandshake(const QUrl& url, const QList<QPair<QByteArray, QByteArray>>& headers);

    QByteArray request() const { return m_request; }

    // Reads the server's answer. Once it is Accepted, `rest` holds what came after its headers
    // (the first frames), and later calls are not made.
    Outcome feed(QByteArrayView bytes, QByteArray& rest);

    // The answer's HTTP status, when one was read.
    int status() const { return m_status; }
    // Why the answer was not accepted, for the log.
    QString problem() const { return m_problem; }

    // The Sec-WebSocket-Accept value the server must send for `key`.
    static QByteArray acceptFor(const QByteArray& key);

private:
    Outcome check(const QByteArray& head);

    QByteArray m_request;
    QByteArray m_key;
    QList<QByteArray> m_protocols; // the subprotocols offered, if any
    QByteArray m_answer;
    int m_status = 0;
    QString m_problem;
};
