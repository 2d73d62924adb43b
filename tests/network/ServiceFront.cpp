#include "ServiceFront.h"

#include "TestAuthority.h"

#include <QSslSocket>

struct ServiceFront::Link {
    QSslSocket* client = nullptr;
    QTcpSocket* service = nullptr;
    bool ready = false; // TLS done (or none), the service's side connected
    bool clientGone = false;
    bool serviceGone = false;
    bool ended = false;
};

ServiceFront::ServiceFront(quint16 servicePort, QObject* parent)
    : QTcpServer(parent), m_servicePort(servicePort) {}

ServiceFront::~ServiceFront() {
    for (const std::unique_ptr<Link>& link : m_links) {
        for (QTcpSocket* socket : {static_cast<QTcpSocket*>(link->client), link->service}) {
            if (socket) {
                socket->disconnect(this);
                socket->abort();
                delete socket;
            }
        }
    }
}

bool ServiceFront::useTls(const QString& certificateFile, const QString& keyFile) {
    m_certificate = QSslCertificate(TestAuthority::read(certificateFile), QSsl::Pem);
    m_key = QSslKey(TestAuthority::read(keyFile), QSsl::Ec, QSsl::Pem);
    return !m_certificate.isNull() && !m_key.isNull();
}

bool ServiceFront::listen() {
    return QTcpServer::listen(QHostAddress::LocalHost, 0);
}

void ServiceFront::incomingConnection(qintptr descriptor) {
    auto link = std::make_unique<Link>();
    Link* raw = link.get();
    raw->client = new QSslSocket();
    if (!raw->client->setSocketDescriptor(descriptor)) {
        delete raw->client;
        return;
    }
    ++m_accepted;
    m_links.push_back(std::move(link));
    raw->service = new QTcpSocket();

    connect(raw->client, &QSslSocket::readyRead, this, [this, raw] { pump(raw); });
    connect(raw->service, &QTcpSocket::readyRead, this, [this, raw] { pump(raw); });
    connect(raw->client, &QSslSocket::disconnected, this, [this, raw] {
        raw->clientGone = true;
        pump(raw);
    });
    connect(raw->service, &QTcpSocket::disconnected, this, [this, raw] {
        raw->serviceGone = true;
        pump(raw);
    });
    connect(raw->service, &QTcpSocket::errorOccurred, this, [this, raw] {
        if (raw->service->state() != QAbstractSocket::ConnectedState) {
            raw->serviceGone = true;
            pump(raw);
        }
    });
    connect(raw->service, &QTcpSocket::connected, this, [this, raw] { start(raw); });
    if (!m_certificate.isNull()) {
        connect(raw->client, &QSslSocket::encrypted, this, [this, raw] {
            ++m_secured;
            raw->service->connectToHost(QHostAddress::LocalHost, m_servicePort);
        });
        connect(raw->client, &QSslSocket::sslErrors, this, [this](const QList<QSslError>& errors) {
            for (const QSslError& error : errors) {
                m_tlsFailures << error.errorString();
            }
        });
        connect(raw->client, &QSslSocket::errorOccurred, this, [this, raw] {
            if (!raw->client->isEncrypted()) {
                m_tlsFailures << raw->client->errorString();
            }
        });
        raw->client->setLocalCertificate(m_certificate);
        raw->client->setPrivateKey(m_key);
        raw->client->setPeerVerifyMode(QSslSocket::VerifyNone);
        raw->client->startServerEncryption();
    } else {
        raw->service->connectToHost(QHostAddress::LocalHost, m_servicePort);
    }
}

void ServiceFront::start(Link* link) {
    link->ready = true;
    link->service->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    link->client->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    pump(link);
}

void ServiceFront::setFrozen(bool frozen) {
    m_frozen = frozen;
    if (!frozen) {
        for (const std::unique_ptr<Link>& link : m_links) {
            pump(link.get());
        }
    }
}

void ServiceFront::pump(Link* link) {
    // While frozen the bytes wait in the sockets' buffers, and a side that went away is only
    // seen by the other side after the thaw.
    if (m_frozen || link->ended) {
        return;
    }
    if (link->ready) {
        if (link->client->bytesAvailable() > 0) {
            link->service->write(link->client->readAll());
        }
        if (link->service->bytesAvailable() > 0) {
            link->client->write(link->service->readAll());
        }
    }
    if (link->clientGone || link->serviceGone) {
        end(link);
    }
}

void ServiceFront::end(Link* link) {
    link->ended = true;
    if (link->service->state() == QAbstractSocket::ConnectedState) {
        link->service->disconnectFromHost();
    } else {
        link->service->abort();
    }
    if (link->client->state() == QAbstractSocket::ConnectedState) {
        link->client->disconnectFromHost();
    }
}
