#include "RecordingHttpServer.h"

#include <QTcpSocket>

#include <memory>

QByteArray RecordingHttpServer::Request::header(const QByteArray& name) const {
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            return value;
        }
    }
    return {};
}

int RecordingHttpServer::Request::headerCount(const QByteArray& name) const {
    int count = 0;
    for (const auto& header : headers) {
        count += header.first.compare(name, Qt::CaseInsensitive) == 0 ? 1 : 0;
    }
    return count;
}

RecordingHttpServer::RecordingHttpServer() {
    m_server.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            serve(socket);
        }
    });
}

QString RecordingHttpServer::base() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void RecordingHttpServer::respond(int status, QByteArray body) {
    m_status = status;
    m_body = std::move(body);
}

void RecordingHttpServer::serve(QTcpSocket* socket) {
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
        buffer->append(socket->readAll());
        const qsizetype headEnd = buffer->indexOf("\r\n\r\n");
        if (headEnd < 0) {
            return;
        }
        Request request;
        const QList<QByteArray> lines = buffer->left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        qsizetype length = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            const QByteArray key = lines[i].left(colon).trimmed();
            const QByteArray value = lines[i].mid(colon + 1).trimmed();
            request.headers.append({key, value});
            if (key.compare("content-length", Qt::CaseInsensitive) == 0) {
                length = value.toLongLong();
            }
        }
        if (buffer->size() < headEnd + 4 + length) {
            return;
        }
        request.body = buffer->mid(headEnd + 4, length);
        buffer->clear();
        m_requests.append(request);

        QByteArray response = "HTTP/1.1 " + QByteArray::number(m_status) + " Canned\r\n";
        response += "Content-Type: application/json\r\n";
        response += "Content-Length: " + QByteArray::number(m_body.size()) + "\r\n";
        response += "Connection: close\r\n\r\n";
        response += m_body;
        socket->write(response);
        socket->disconnectFromHost();
    });
}
