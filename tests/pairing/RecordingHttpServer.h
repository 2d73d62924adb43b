#pragma once

#include <QByteArray>
#include <QList>
#include <QTcpServer>

// A bare HTTP/1.1 server on 127.0.0.1 that records each request exactly as it arrived and
// answers every one with the same canned response, then closes the connection.
class RecordingHttpServer {
public:
    struct Request {
        QByteArray method;
        QByteArray target;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QByteArray body;

        // The value of the one header with this name (case-insensitive); empty when absent.
        QByteArray header(const QByteArray& name) const;
        int headerCount(const QByteArray& name) const;
    };

    RecordingHttpServer();

    // "http://127.0.0.1:<port>"
    QString base() const;
    void respond(int status, QByteArray body);
    const QList<Request>& requests() const { return m_requests; }

private:
    void serve(QTcpSocket* socket);

    QTcpServer m_server;
    int m_status = 200;
    QByteArray m_body;
    QList<Request> m_requests;
};
