#include "SingleInstance.h"

#include "AppIdentity.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QStandardPaths>
#include <QThread>

namespace {

// A later launch says one short line; anything longer is not ours.
constexpr qint64 longestMessage = 64;

} // namespace

SingleInstance::SingleInstance(QString directory, QObject* parent)
    : QObject(parent), m_directory(std::move(directory)) {}

SingleInstance::~SingleInstance() {
    if (m_server) {
        m_server->close();
    }
    // QLockFile removes the lock file as it goes.
}

QString SingleInstance::defaultDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
}

QByteArray SingleInstance::reopenMessage() {
    return QByteArrayLiteral("reopen\n");
}

QString SingleInstance::socketPath() const {
    return m_directory + u'/' + AppIdentity::id() + QStringLiteral(".socket");
}

QString SingleInstance::lockPath() const {
    return m_directory + u'/' + AppIdentity::id() + QStringLiteral(".lock");
}

SingleInstance::Role SingleInstance::start(std::chrono::milliseconds patience) {
    if (m_directory.isEmpty() || !QDir(m_directory).exists()) {
        return Role::Alone;
    }
    m_lock = std::make_unique<QLockFile>(lockPath());
    // Never stale by age: a running companion holds it for days. A holder that is gone (its
    // process id no longer runs this program) is detected by QLockFile and the lock taken over.
    m_lock->setStaleLockTime(0);

    const QDeadlineTimer deadline(patience);
    for (;;) {
        if (m_lock->tryLock(0)) {
            return listen() ? Role::Primary : Role::Alone;
        }
        if (m_lock->error() != QLockFile::LockFailedError) {
            // No lock can be made here (permissions, a full disk); a companion that listens
            // anyway still gets the message, otherwise this one runs by itself.
            m_lock.reset();
            return handOver(std::chrono::milliseconds(500)) ? Role::HandedOver : Role::Alone;
        }
        // Held by a running companion, which may not listen yet if it has just started.
        const auto attempt = std::min<std::chrono::milliseconds>(
            std::chrono::milliseconds(500),
            std::chrono::milliseconds(std::max<qint64>(0, deadline.remainingTime())));
        if (handOver(attempt)) {
            return Role::HandedOver;
        }
        if (deadline.hasExpired()) {
            return Role::Unanswered;
        }
        QThread::msleep(50);
    }
}

bool SingleInstance::listen() {
    // Holding the lock, this process is the only one that may listen; a socket file that is
    // still there was left by a companion that crashed.
    QLocalServer::removeServer(socketPath());
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(socketPath())) {
        delete m_server;
        m_server = nullptr;
        return false;
    }
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::acceptConnections);
    return true;
}

bool SingleInstance::handOver(std::chrono::milliseconds timeout) {
    QLocalSocket socket;
    socket.connectToServer(socketPath(), QIODevice::WriteOnly);
    if (!socket.waitForConnected(int(timeout.count()))) {
        return false;
    }
    socket.write(reopenMessage());
    if (!socket.waitForBytesWritten(int(std::max<qint64>(timeout.count(), 100)))) {
        return false;
    }
    socket.disconnectFromServer();
    return true;
}

void SingleInstance::acceptConnections() {
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        auto readMessage = [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > longestMessage) {
                    socket->abort();
                }
                return;
            }
            const QByteArray line = socket->readLine(longestMessage);
            socket->disconnectFromServer();
            if (line == reopenMessage()) {
                emit reopenRequested();
            }
        };
        connect(socket, &QLocalSocket::readyRead, this, readMessage);
        // The whole line may have arrived with the connection.
        readMessage();
    }
}
