#include "ClaimStub.h"

#include <QHostAddress>

ClaimStub::ClaimStub(QObject* parent) : QObject(parent) {
    m_server.listen(QHostAddress::LocalHost);
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QString ClaimStub::base() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void ClaimStub::respond(int status, QByteArray body) {
    m_status = status;
    m_body = std::move(body);
}

void ClaimStub::hold() {
    m_holding = true;
}

void ClaimStub::release() {
    m_holding = false;
    const QList<QPointer<QTcpSocket>> waiting = std::exchange(m_waiting, {});
    for (const QPointer<QTcpSocket>& socket : waiting) {
        if (socket) {
            answer(socket);
        }
    }
}

void ClaimStub::read(QTcpSocket* socket) {
    // Wait for the whole request: the headers, then as many body bytes as they announce.
    const QByteArray request = socket->property("request").toByteArray() + socket->readAll();
    socket->setProperty("request", request);

    const qsizetype headerEnd = request.indexOf("\r\n\r\n");
    if (headerEnd < 0) {
        return;
    }
    qsizetype contentLength = 0;
    for (const QByteArray& line : request.left(headerEnd).split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.toLower().startsWith("content-length:")) {
            contentLength = trimmed.mid(15).trimmed().toLongLong();
        }
    }
    if (request.size() - (headerEnd + 4) < contentLength || socket->property("seen").toBool()) {
        return;
    }
    socket->setProperty("seen", true);
    ++m_requestCount;
    if (m_holding) {
        m_waiting.append(socket);
    } else {
        answer(socket);
    }
}

void ClaimStub::answer(QTcpSocket* socket) {
    QByteArray response = "HTTP/1.1 " + QByteArray::number(m_status) + " Stub\r\n";
    response += "Content-Type: application/json\r\n";
    response += "Content-Length: " + QByteArray::number(m_body.size()) + "\r\n";
    response += "Connection: close\r\n\r\n";
    response += m_body;
    socket->write(response);
    socket->disconnectFromHost();
}
