#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

#include <memory>
#include <vector>

class QTcpSocket;

// An HTTP proxy on 127.0.0.1 for tests. It tunnels CONNECT requests and forwards requests in
// absolute form ("POST http://host:port/path"), and whatever host is asked for, it goes to that
// port on 127.0.0.1: so the service can be named by a host that does not resolve, which only
// works through the proxy. It may demand a Basic login (407 with Proxy-Authenticate, the
// connection kept open for the next try), and records every request it was asked.
class ConnectProxy : public QObject {
    Q_OBJECT

public:
    struct Request {
        QByteArray method; // CONNECT, POST, ...
        QString target;    // host:port of the service asked for
        QString login;     // "user:password" as sent, empty without Proxy-Authorization
        bool admitted = false;
    };

    explicit ConnectProxy(QObject* parent = nullptr);
    ~ConnectProxy() override;

    bool listen();
    quint16 port() const { return m_server.serverPort(); }
    // "http://127.0.0.1:PORT", with `userInfo` ("user:password", already percent-encoded) when
    // given.
    QString url(const QString& userInfo = QString()) const;

    // From now on only requests with this Basic login are let through.
    void requireLogin(const QString& user, const QString& password);
    // Closes the connection after each 407, as some proxies do, instead of keeping it open.
    void setCloseAfterChallenge(bool close) { m_closeAfterChallenge = close; }

    const QList<Request>& requests() const { return m_requests; }
    // Admitted CONNECTs and forwarded requests, and login challenges (407s) answered.
    int tunnels() const;
    int forwarded() const;
    int challenges() const;

private:
    struct Link;

    void accept();
    void fromClient(Link* link);
    void handleHead(Link* link, const QByteArray& head);
    void openUpstream(Link* link, quint16 port, QByteArray firstBytes, bool tunnel);
    void end(Link* link);

    QTcpServer m_server;
    QString m_login; // "user:password", empty when none is asked for
    bool m_closeAfterChallenge = false;
    QList<Request> m_requests;
    std::vector<std::unique_ptr<Link>> m_links;
};
