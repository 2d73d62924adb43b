#include "ConnectProxy.h"

#include <QTcpSocket>
#include <QUrl>

#include <algorithm>

struct ConnectProxy::Link {
    QTcpSocket* client = nullptr;
    QTcpSocket* upstream = nullptr;
    QByteArray head;        // the request head being read, before the link is piped
    QByteArray forUpstream; // bytes for the service until its side is connected
    qint64 skip = 0;        // what is left of a refused request's body
    bool piping = false;
    bool upstreamUp = false;
    bool ended = false;
};

namespace {

constexpr qsizetype maxHead = 64 * 1024;

QByteArray headerValue(const QByteArray& head, const QByteArray& name) {
    for (const QByteArray& line : head.split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0) {
            return line.mid(colon + 1).trimmed();
        }
    }
    return QByteArray();
}

// The head with Proxy-* headers left out and the request line replaced.
QByteArray forService(const QByteArray& head, const QByteArray& requestLine) {
    QByteArray out = requestLine + "\r\n";
    const QList<QByteArray> lines = head.split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (line.isEmpty() || line.toLower().startsWith("proxy-")) {
            continue;
        }
        out += line + "\r\n";
    }
    return out + "\r\n";
}

} // namespace

ConnectProxy::ConnectProxy(QObject* parent) : QObject(parent) {
    connect(&m_server, &QTcpServer::newConnection, this, &ConnectProxy::accept);
}

ConnectProxy::~ConnectProxy() {
    for (const std::unique_ptr<Link>& link : m_links) {
        for (QTcpSocket* socket : {link->client, link->upstream}) {
            if (socket) {
                socket->disconnect(this);
                socket->abort();
                delete socket;
            }
        }
    }
}

bool ConnectProxy::listen() {
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString ConnectProxy::url(const QString& userInfo) const {
    return QStringLiteral("http://") + (userInfo.isEmpty() ? QString() : userInfo + u'@') +
           QStringLiteral("127.0.0.1:") + QString::number(port());
}

void ConnectProxy::requireLogin(const QString& user, const QString& password) {
    m_login = user + u':' + password;
}

int ConnectProxy::tunnels() const {
    return int(std::count_if(m_requests.begin(), m_requests.end(),
                             [](const Request& r) { return r.admitted && r.method == "CONNECT"; }));
}

int ConnectProxy::forwarded() const {
    return int(std::count_if(m_requests.begin(), m_requests.end(),
                             [](const Request& r) { return r.admitted && r.method != "CONNECT"; }));
}

int ConnectProxy::challenges() const {
    return int(std::count_if(m_requests.begin(), m_requests.end(),
                             [](const Request& r) { return !r.admitted; }));
}

void ConnectProxy::accept() {
    while (QTcpSocket* client = m_server.nextPendingConnection()) {
        client->setParent(nullptr);
        auto link = std::make_unique<Link>();
        Link* raw = link.get();
        raw->client = client;
        m_links.push_back(std::move(link));
        connect(client, &QTcpSocket::readyRead, this, [this, raw] { fromClient(raw); });
        connect(client, &QTcpSocket::disconnected, this, [this, raw] { end(raw); });
        fromClient(raw);
    }
}

void ConnectProxy::fromClient(Link* link) {
    if (link->ended) {
        return;
    }
    const QByteArray bytes = link->client->readAll();
    if (link->piping) {
        if (link->upstream->state() == QAbstractSocket::ConnectedState) {
            link->upstream->write(bytes);
        } else {
            link->forUpstream += bytes;
        }
        return;
    }
    link->head += bytes;
    // A client may send its next request (after a 407) on the same connection.
    while (!link->piping && !link->ended) {
        const qsizetype skipped = qsizetype(std::min<qint64>(link->skip, link->head.size()));
        link->head.remove(0, skipped);
        link->skip -= skipped;
        if (link->skip > 0) {
            return;
        }
        const qsizetype endOfHead = link->head.indexOf("\r\n\r\n");
        if (endOfHead < 0) {
            if (link->head.size() > maxHead) {
                end(link);
            }
            return;
        }
        const QByteArray head = link->head.left(endOfHead + 4);
        link->head.remove(0, endOfHead + 4);
        handleHead(link, head);
    }
}

void ConnectProxy::handleHead(Link* link, const QByteArray& head) {
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    if (requestLine.size() != 3) {
        link->client->write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
        link->client->disconnectFromHost();
        return;
    }
    Request request;
    request.method = requestLine[0];
    const bool tunnel = request.method == "CONNECT";
    const QUrl url = tunnel ? QUrl(QStringLiteral("//") + QString::fromLatin1(requestLine[1]))
                            : QUrl(QString::fromLatin1(requestLine[1]));
    request.target = url.host() + u':' + QString::number(url.port(0));
    const QByteArray authorization = headerValue(head, "Proxy-Authorization");
    if (authorization.startsWith("Basic ")) {
        request.login = QString::fromUtf8(QByteArray::fromBase64(authorization.mid(6)));
    }
    request.admitted = m_login.isEmpty() || request.login == m_login;
    m_requests.append(request);

    if (!request.admitted) {
        // The refused request's body is passed over; the next request follows it.
        link->skip = headerValue(head, "Content-Length").toLongLong();
        link->client->write(QByteArray("HTTP/1.1 407 Proxy Authentication Required\r\n"
                                       "Proxy-Authenticate: Basic realm=\"quillmar-test\"\r\n") +
                            (m_closeAfterChallenge ? "Connection: close\r\n"
                                                     "Proxy-Connection: close\r\n"
                                                   : "") +
                            "Content-Length: 0\r\n\r\n");
        if (m_closeAfterChallenge) {
            end(link);
        }
        return;
    }
    if (url.port(0) == 0 || (!tunnel && url.scheme() != u"http")) {
        link->client->write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
        link->client->disconnectFromHost();
        return;
    }
    QByteArray firstBytes;
    if (!tunnel) {
        // Sent on in origin form; the rest of the connection is piped as it comes.
        QByteArray path = url.path(QUrl::FullyEncoded).toLatin1();
        if (path.isEmpty()) {
            path = "/";
        }
        if (url.hasQuery()) {
            path += '?' + url.query(QUrl::FullyEncoded).toLatin1();
        }
        firstBytes = forService(head, request.method + ' ' + path + ' ' + requestLine[2]);
    }
    openUpstream(link, quint16(url.port()), firstBytes + std::exchange(link->head, {}), tunnel);
}

void ConnectProxy::openUpstream(Link* link, quint16 port, QByteArray firstBytes, bool tunnel) {
    link->piping = true;
    link->forUpstream = std::move(firstBytes);
    link->upstream = new QTcpSocket();
    connect(link->upstream, &QTcpSocket::connected, this, [link, tunnel] {
        link->upstreamUp = true;
        if (tunnel) {
            link->client->write("HTTP/1.1 200 Connection established\r\n\r\n");
        }
        link->upstream->write(std::exchange(link->forUpstream, {}));
    });
    connect(link->upstream, &QTcpSocket::readyRead, this, [link] {
        if (!link->ended) {
            link->client->write(link->upstream->readAll());
        }
    });
    connect(link->upstream, &QTcpSocket::disconnected, this, [this, link] { end(link); });
    connect(link->upstream, &QTcpSocket::errorOccurred, this, [this, link] {
        if (!link->upstreamUp && !link->ended) {
            link->client->write("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
        }
        end(link);
    });
    link->upstream->connectToHost(QHostAddress::LocalHost, port);
}

void ConnectProxy::end(Link* link) {
    if (link->ended) {
        return;
    }
    link->ended = true;
    // What either side sent last still reaches the other before it is closed.
    if (link->upstream && link->upstream->state() == QAbstractSocket::ConnectedState) {
        link->upstream->write(link->client->readAll());
        link->upstream->disconnectFromHost();
    } else if (link->upstream) {
        link->upstream->abort();
    }
    if (link->upstream) {
        link->client->write(link->upstream->readAll());
    }
    link->client->disconnectFromHost();
}
