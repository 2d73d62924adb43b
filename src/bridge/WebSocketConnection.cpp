#include "WebSocketConnection.h"

#include <QAuthenticator>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QSslSocket>
#include <QTimer>

#include <utility>

Q_LOGGING_CATEGORY(lcSocket, "quillmar.bridge.socket", QtWarningMsg)

namespace {

// A close that the server does not answer is cut after this long.
constexpr std::chrono::seconds closeGrace{5};

} // namespace

WebSocketConnection::WebSocketConnection(QObject* parent) : QObject(parent) {}

WebSocketConnection::~WebSocketConnection() {
    dropSocket();
}

void WebSocketConnection::addHeader(const QByteArray& name, const QByteArray& value) {
    m_headers.append({name, value});
}

qint64 WebSocketConnection::bytesToWrite() const {
    return m_socket ? m_socket->bytesToWrite() : 0;
}

void WebSocketConnection::open(const QUrl& url) {
    const bool secure = url.scheme() == u"wss";
    if (m_state != State::Idle || (!secure && url.scheme() != u"ws") || url.host().isEmpty()) {
        finishLater(ConnectionProblem(ConnectionProblem::Kind::HostNotFound,
                                      QStringLiteral("not a WebSocket address")));
        return;
    }
    m_state = State::Connecting;
    m_handshake = std::make_unique<WebSocketHandshake>(url, m_headers);
    m_framer = std::make_unique<WebSocketFramer>(m_largestMessage);

    // TLS only where it is asked for: a TLS socket loads every trusted certificate of the
    // system, which costs a quarter of a second and megabytes that a plain connection needs not.
    QSslSocket* secureSocket = secure ? new QSslSocket(this) : nullptr;
    m_socket = secure ? secureSocket : new QTcpSocket(this);
    m_socket->setProxy(m_proxy);
    QObject::connect(m_socket, &QTcpSocket::proxyAuthenticationRequired, this,
                     [this](const QNetworkProxy& proxy, QAuthenticator* login) {
                         // The login from the proxy setting is offered once; asked again, it was
                         // not accepted.
                         if (++m_proxyLogins == 1 && !proxy.user().isEmpty()) {
                             login->setUser(proxy.user());
                             login->setPassword(proxy.password());
                         }
                     });
    QObject::connect(m_socket, &QTcpSocket::errorOccurred, this, [this] { socketFailed(); });
    QObject::connect(m_socket, &QTcpSocket::disconnected, this, [this] { socketFailed(); });
    QObject::connect(m_socket, &QTcpSocket::readyRead, this, [this] { readAvailable(); });
    const quint16 port = quint16(url.port(secure ? 443 : 80));
    if (secureSocket) {
        secureSocket->setSslConfiguration(
            m_ssl.value_or(QSslConfiguration::defaultConfiguration()));
        QObject::connect(secureSocket, &QSslSocket::sslErrors, this,
                         [this](const QList<QSslError>& errors) { m_sslErrors = errors; });
        QObject::connect(secureSocket, &QSslSocket::encrypted, this, [this] { startHandshake(); });
        secureSocket->connectToHostEncrypted(url.host(), port);
    } else {
        QObject::connect(m_socket, &QTcpSocket::connected, this, [this] { startHandshake(); });
        m_socket->connectToHost(url.host(), port);
    }
}

void WebSocketConnection::startHandshake() {
    if (m_state != State::Connecting) {
        return;
    }
    m_state = State::Handshaking;
    // Answers are small and each one is awaited: Nagle's algorithm would hold a second one back
    // until the first is acknowledged, tens of milliseconds later.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_socket->write(m_handshake->request());
}

void WebSocketConnection::readAvailable() {
    if (!m_socket ||
        (m_state != State::Handshaking && m_state != State::Open && m_state != State::Closing)) {
        return;
    }
    const QPointer<WebSocketConnection> self(this);
    while (self && m_socket && m_socket->bytesAvailable() > 0) {
        const QByteArray bytes = m_socket->read(256 * 1024);
        QByteArray frames = bytes;
        if (m_state == State::Handshaking) {
            frames.clear();
            switch (m_handshake->feed(bytes, frames)) {
            case WebSocketHandshake::Outcome::Incomplete:
                continue;
            case WebSocketHandshake::Outcome::Refused: {
                const int status = m_handshake->status();
                finish(ConnectionProblem(status == 401 || status == 403
                                             ? ConnectionProblem::Kind::TokenRefused
                                             : ConnectionProblem::Kind::HandshakeRefused,
                                         m_handshake->problem(), status));
                return;
            }
            case WebSocketHandshake::Outcome::Malformed:
                finish(ConnectionProblem(ConnectionProblem::Kind::NotWebSocket,
                                         m_handshake->problem()));
                return;
            case WebSocketHandshake::Outcome::Accepted:
                m_state = State::Open;
                emit connected();
                if (!self || m_state != State::Open) {
                    return;
                }
                break;
            }
        }
        if (frames.isEmpty()) {
            continue;
        }
        QList<WebSocketFramer::Event> events;
        m_framer->feed(frames, events);
        handleEvents(events);
    }
}

void WebSocketConnection::handleEvents(const QList<WebSocketFramer::Event>& events) {
    const QPointer<WebSocketConnection> self(this);
    for (const WebSocketFramer::Event& event : events) {
        if (!self || m_state == State::Ended) {
            return;
        }
        using Kind = WebSocketFramer::Event::Kind;
        if (event.kind != Kind::Failure) {
            emit activity();
            if (!self) {
                return;
            }
        }
        switch (event.kind) {
        case Kind::Text:
            if (m_state == State::Open) {
                emit textReceived(event.payload);
            }
            break;
        case Kind::Binary:
            if (m_state == State::Open) {
                emit binaryReceived(event.payload);
            }
            break;
        case Kind::Ping:
            write(WebSocketFramer::Opcode::Pong, event.payload);
            break;
        case Kind::Pong:
            emit pongReceived(event.payload);
            break;
        case Kind::Close:
            if (m_closeStartedHere) {
                dropSocket(); // the server answered our close: done
                m_state = State::Ended;
                return;
            }
            // Answered with the same code, then the server is expected to end the connection.
            write(WebSocketFramer::Opcode::Close,
                  event.code == 1005 ? QByteArray()
                                     : WebSocketFramer::closePayload(event.code, QByteArray()));
            finish(ConnectionProblem(ConnectionProblem::Kind::ClosedByService,
                                     event.payload.isEmpty()
                                         ? (event.code == 1000 || event.code == 1005
                                                ? QString()
                                                : QStringLiteral("code %1").arg(event.code))
                                         : QString::fromUtf8(event.payload),
                                     event.code),
                   SocketEnd::Linger);
            return;
        case Kind::Failure:
            qCWarning(lcSocket) << "closing the connection:" << event.problem;
            if (m_closeStartedHere) {
                abort(); // our close frame went out already: one is all a connection may have
                return;
            }
            write(WebSocketFramer::Opcode::Close,
                  WebSocketFramer::closePayload(event.code, event.problem.toUtf8()));
            finish(ConnectionProblem(event.code == WebSocketFramer::messageTooBig
                                         ? ConnectionProblem::Kind::TooBig
                                         : ConnectionProblem::Kind::Unreadable,
                                     event.problem, event.code),
                   SocketEnd::Linger);
            return;
        }
    }
}

void WebSocketConnection::write(WebSocketFramer::Opcode opcode, QByteArrayView payload) {
    if (!m_socket || (m_state != State::Open && m_state != State::Closing)) {
        return;
    }
    m_socket->write(
        WebSocketFramer::encode(opcode, payload, QRandomGenerator::global()->generate()));
}

void WebSocketConnection::sendText(QByteArrayView utf8) {
    if (m_state != State::Open) {
        return;
    }
    write(WebSocketFramer::Opcode::Text, utf8);
    // Out now rather than on the next pass of the event loop: the service is waiting for it.
    m_socket->flush();
}

void WebSocketConnection::ping(QByteArrayView payload) {
    if (m_state == State::Open) {
        write(WebSocketFramer::Opcode::Ping,
              payload.first(std::min<qsizetype>(payload.size(), 125)));
        m_socket->flush();
    }
}

void WebSocketConnection::close(quint16 code, const QByteArray& reason) {
    if (m_state != State::Open) {
        abort();
        return;
    }
    m_closeStartedHere = true;
    write(WebSocketFramer::Opcode::Close, WebSocketFramer::closePayload(code, reason));
    m_socket->flush();
    m_state = State::Closing;
    m_closeTimer = new QTimer(this);
    m_closeTimer->setSingleShot(true);
    QObject::connect(m_closeTimer, &QTimer::timeout, this, [this] { abort(); });
    m_closeTimer->start(closeGrace);
}

void WebSocketConnection::abort() {
    m_state = State::Ended;
    dropSocket();
}

QTcpSocket* WebSocketConnection::detachSocket() {
    if (m_closeTimer) {
        m_closeTimer->stop();
    }
    QTcpSocket* socket = std::exchange(m_socket, nullptr);
    if (socket) {
        QObject::disconnect(socket, nullptr, this, nullptr);
    }
    return socket;
}

void WebSocketConnection::dropSocket() {
    if (QTcpSocket* socket = detachSocket()) {
        socket->abort();
        socket->deleteLater();
    }
}

ConnectionProblem WebSocketConnection::describeSocketError() const {
    using Kind = ConnectionProblem::Kind;
    const QString detail = m_socket ? m_socket->errorString() : QString();
    switch (m_socket ? m_socket->error() : QAbstractSocket::UnknownSocketError) {
    case QAbstractSocket::HostNotFoundError:
        return ConnectionProblem(Kind::HostNotFound, detail);
    case QAbstractSocket::ConnectionRefusedError:
        return ConnectionProblem(Kind::Refused, detail);
    case QAbstractSocket::SocketTimeoutError:
    case QAbstractSocket::ProxyConnectionTimeoutError:
        return ConnectionProblem(Kind::NoAnswer, detail);
    case QAbstractSocket::SslHandshakeFailedError:
    case QAbstractSocket::SslInvalidUserDataError:
    case QAbstractSocket::SslInternalError:
        return ConnectionProblem::fromSslErrors(m_sslErrors);
    case QAbstractSocket::ProxyNotFoundError:
        return ConnectionProblem(Kind::ProxyNotFound, detail);
    case QAbstractSocket::ProxyAuthenticationRequiredError:
        return ConnectionProblem(
            m_proxy.user().isEmpty() ? Kind::ProxyLoginNeeded : Kind::ProxyLoginRefused, detail);
    case QAbstractSocket::ProxyConnectionRefusedError:
    case QAbstractSocket::ProxyConnectionClosedError:
    case QAbstractSocket::ProxyProtocolError:
        return ConnectionProblem(Kind::ProxyRefused, detail);
    case QAbstractSocket::RemoteHostClosedError:
        return ConnectionProblem(m_state == State::Handshaking ? Kind::NotWebSocket : Kind::Broken,
                                 detail);
    default:
        return ConnectionProblem(Kind::Broken, detail);
    }
}

void WebSocketConnection::socketFailed() {
    if (m_state == State::Ended) {
        return;
    }
    if (m_state == State::Closing) {
        abort(); // the server ended the connection after our close: that is how it should end
        return;
    }
    finish(describeSocketError());
}

void WebSocketConnection::finish(const ConnectionProblem& problem, SocketEnd socketEnd) {
    if (m_state == State::Ended) {
        return;
    }
    m_state = State::Ended;
    if (socketEnd == SocketEnd::Linger) {
        lingerSocket();
    } else {
        dropSocket();
    }
    emit ended(problem);
}

void WebSocketConnection::lingerSocket() {
    QTcpSocket* socket = detachSocket();
    if (!socket) {
        return;
    }
    // The close frame waits behind whatever was still being written. Dropping the socket now
    // would lose both, and closing it with bytes unread makes the system reset the connection.
    // So it stays, on its own (this object may go at once), reading and discarding, until the
    // server ends the connection, as it should first, or the grace period is over.
    socket->setParent(nullptr);
    socket->flush();
    const auto discard = [socket] { socket->skip(socket->bytesAvailable()); };
    discard();
    QObject::connect(socket, &QTcpSocket::readyRead, socket, discard);
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(socket, &QTcpSocket::errorOccurred, socket, &QObject::deleteLater);
    QTimer::singleShot(closeGrace, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
}

void WebSocketConnection::finishLater(const ConnectionProblem& problem) {
    m_state = State::Ended;
    QTimer::singleShot(0, this, [this, problem] { emit ended(problem); });
}
