#pragma once

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QTcpServer>

#include <memory>
#include <vector>

class QTcpSocket;

// A relay on 127.0.0.1 in front of the plain dev service: with a certificate it speaks TLS to
// the companion (the dev service itself only speaks plain HTTP), and on command it freezes,
// the way a path that silently stops carrying packets does: every connection stays open, and
// nothing more passes either way, new connections included, until it thaws.
class ServiceFront : public QTcpServer {
    Q_OBJECT

public:
    explicit ServiceFront(quint16 servicePort, QObject* parent = nullptr);
    ~ServiceFront() override;

    // TLS with this certificate and key (PEM files); false when they cannot be read.
    bool useTls(const QString& certificateFile, const QString& keyFile);
    bool listen();

    void setFrozen(bool frozen);
    bool isFrozen() const { return m_frozen; }

    // Connections accepted so far, and those that finished their TLS handshake.
    int accepted() const { return m_accepted; }
    int secured() const { return m_secured; }
    // The TLS handshakes that failed, with the reason the server side saw.
    const QStringList& tlsFailures() const { return m_tlsFailures; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Link;

    void start(Link* link);
    void pump(Link* link);
    void end(Link* link);

    quint16 m_servicePort;
    QSslCertificate m_certificate;
    QSslKey m_key;
    bool m_frozen = false;
    int m_accepted = 0;
    int m_secured = 0;
    QStringList m_tlsFailures;
    std::vector<std::unique_ptr<Link>> m_links;
};
