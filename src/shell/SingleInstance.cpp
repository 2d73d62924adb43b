#include "SingleInstance.h"

#include "AppIdentity.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QLoggingCategory>
#include <QPointer>
#include <QStandardPaths>
#include <QThread>
#include <QtEndian>

#include <cerrno>
#include <csignal>

Q_LOGGING_CATEGORY(lcInstance, "quillmar.instance", QtWarningMsg)

namespace {

// A later launch says one short line; anything longer is not ours.
constexpr qint64 longestMessage = 64;
// The running companion's answer, one JSON line (the activity is the longest).
constexpr qint64 longestAnswer = 16 * 1024 * 1024;
// A tool call handed over: as large as the bridge takes a message.
constexpr quint32 longestCall = 64 * 1024 * 1024;

// Sends one request line and reads the one-line answer: nothing when no companion took the
// request or none answered in time, an empty answer when one closed without answering.
std::optional<QByteArray> exchange(const QString& path, const QByteArray& request,
                                   std::chrono::milliseconds timeout) {
    QLocalSocket socket;
    socket.connectToServer(path);
    const QDeadlineTimer deadline(timeout);
    if (!socket.waitForConnected(int(timeout.count()))) {
        return std::nullopt;
    }
    socket.write(request);
    if (!socket.waitForBytesWritten(int(std::max<qint64>(deadline.remainingTime(), 100)))) {
        return std::nullopt;
    }
    while (!socket.canReadLine() && socket.state() == QLocalSocket::ConnectedState &&
           socket.bytesAvailable() < longestAnswer && !deadline.hasExpired()) {
        socket.waitForReadyRead(int(std::max<qint64>(deadline.remainingTime(), 1)));
    }
    if (socket.canReadLine()) {
        return socket.readLine(longestAnswer).trimmed();
    }
    // Still connected and silent: busy (just starting, or stopped), which is no answer yet.
    if (socket.state() == QLocalSocket::ConnectedState && socket.bytesAvailable() < longestAnswer) {
        return std::nullopt;
    }
    // Closed without answering: a companion from before answers existed.
    return QByteArray();
}

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

SingleInstance::Role SingleInstance::start(std::chrono::milliseconds patience, Launch launch) {
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
            switch (handOver(std::chrono::milliseconds(500), launch)) {
            case Answer::Shown:
                return Role::HandedOver;
            case Answer::Elsewhere:
                return Role::RunningElsewhere;
            case Answer::None:
                return Role::Alone;
            }
        }
        // Held by a running companion, which may not listen yet if it has just started, and
        // may be slow to answer while it starts: its answer is waited for all the patience long.
        const auto attempt =
            std::chrono::milliseconds(std::max<qint64>(0, deadline.remainingTime()));
        switch (handOver(attempt, launch)) {
        case Answer::Shown:
            return Role::HandedOver;
        case Answer::Elsewhere:
            return Role::RunningElsewhere;
        case Answer::None:
            break;
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

SingleInstance::Answer SingleInstance::handOver(std::chrono::milliseconds timeout, Launch launch) {
    // A desktop launch asks for the window; a --headless one only asks who runs.
    const std::optional<QByteArray> reply =
        exchange(socketPath(), launch == Launch::Desktop ? reopenMessage() : QByteArray("status\n"),
                 timeout);
    if (!reply) {
        return Answer::None;
    }
    QJsonParseError parseError;
    const QJsonObject running = QJsonDocument::fromJson(*reply, &parseError).object();
    if (!reply->isEmpty() && parseError.error != QJsonParseError::NoError) {
        qCDebug(lcInstance) << "the running companion's answer is not JSON:"
                            << parseError.errorString();
    }
    m_runningMode = running.value(QStringLiteral("mode")).toString(QStringLiteral("desktop"));
    m_runningProcess = running.value(QStringLiteral("pid")).toInteger();
    // A companion that closes without answering is one that showed its window.
    if (launch == Launch::Desktop &&
        (reply->isEmpty() || running.value(QStringLiteral("shown")).toBool())) {
        return Answer::Shown;
    }
    return Answer::Elsewhere;
}

std::optional<QJsonObject> SingleInstance::ask(const QString& directory, const QByteArray& request,
                                               std::chrono::milliseconds timeout) {
    if (directory.isEmpty()) {
        return std::nullopt;
    }
    const SingleInstance paths(directory);
    const std::optional<QByteArray> reply =
        exchange(paths.socketPath(), request.trimmed() + '\n', timeout);
    if (!reply || reply->isEmpty()) {
        return std::nullopt;
    }
    QJsonParseError parseError;
    const QJsonDocument answer = QJsonDocument::fromJson(*reply, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qCDebug(lcInstance) << "the running companion's answer is not JSON:"
                            << parseError.errorString();
    }
    return answer.object();
}

qint64 SingleInstance::holder(const QString& directory) {
    if (directory.isEmpty()) {
        return 0;
    }
    const QLockFile lock(SingleInstance(directory).lockPath());
    qint64 pid = 0;
    QString host;
    QString application;
    if (!lock.getLockInfo(&pid, &host, &application) || pid <= 0) {
        return 0;
    }
    // Only asks whether the process exists; EPERM still means it does.
    if (::kill(pid_t(pid), 0) != 0 && errno != EPERM) {
        return 0;
    }
    // A process id that another program has taken since is no companion.
    QString running = QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
    running = QFileInfo(running.remove(QStringLiteral(" (deleted)"))).fileName();
    return running.isEmpty() || application.isEmpty() || running == application ? pid : 0;
}

QByteArray SingleInstance::answer(const QByteArray& request) {
    QJsonObject reply{{QStringLiteral("mode"), m_mode},
                      {QStringLiteral("pid"), QCoreApplication::applicationPid()}};
    if (request == reopenMessage()) {
        const bool shown = m_mode == u"desktop";
        reply.insert(QStringLiteral("shown"), shown);
        if (shown) {
            emit reopenRequested();
        }
    } else if (request == "status\n") {
        reply.insert(QStringLiteral("state"), m_state);
    } else if (request == "activity\n") {
        reply.insert(QStringLiteral("activity"),
                     m_activitySource ? m_activitySource() : QJsonArray());
    } else if (request == "reload\n") {
        emit reloadRequested();
    } else if (request.startsWith("restored ") && request.endsWith('\n')) {
        emit versionRestored(QString::fromUtf8(request.mid(9).chopped(1)));
    } else {
        return QByteArray();
    }
    return QJsonDocument(reply).toJson(QJsonDocument::Compact) + '\n';
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
            if (line == callStreamMessage()) {
                // From now on the connection carries tool calls, framed, until it closes.
                disconnect(socket, &QLocalSocket::readyRead, this, nullptr);
                connect(socket, &QLocalSocket::readyRead, this,
                        [this, socket] { readCalls(socket); });
                readCalls(socket);
                return;
            }
            socket->write(answer(line));
            socket->flush();
            socket->disconnectFromServer();
        };
        connect(socket, &QLocalSocket::readyRead, this, readMessage);
        // The whole line may have arrived with the connection.
        readMessage();
    }
}

QByteArray SingleInstance::callStreamMessage() {
    return QByteArrayLiteral("calls\n");
}

void SingleInstance::readCalls(QLocalSocket* socket) {
    while (socket->bytesAvailable() >= callHeaderSize) {
        const QByteArray header = socket->peek(callHeaderSize);
        const quint32 length = qFromBigEndian<quint32>(header.constData());
        if (length > longestCall) {
            socket->abort();
            return;
        }
        if (socket->bytesAvailable() < callHeaderSize + qint64(length)) {
            return;
        }
        socket->skip(callHeaderSize);
        const quint64 id = qFromBigEndian<quint64>(header.constData() + 4);
        answerCall(socket, id, socket->read(length));
    }
}

QByteArray SingleInstance::callFrame(quint64 id, QByteArrayView payload) {
    QByteArray frame(callHeaderSize, Qt::Uninitialized);
    qToBigEndian<quint32>(quint32(payload.size()), frame.data());
    qToBigEndian<quint64>(id, frame.data() + 4);
    frame.append(payload);
    return frame;
}

QCoro::Task<> SingleInstance::answerCall(QLocalSocket* socket, quint64 id, QByteArray call) {
    const QPointer<QLocalSocket> caller(socket);
    const auto send = [caller, id](const QByteArray& reply) {
        if (caller && caller->state() == QLocalSocket::ConnectedState) {
            caller->write(callFrame(id, reply));
            caller->flush();
        }
    };
    const QJsonObject request = QJsonDocument::fromJson(call).object();
    if (!m_callHandler) {
        send(QByteArrayLiteral("1This companion does not take calls from local agents."));
        co_return;
    }
    if (request.isEmpty()) {
        send(QByteArrayLiteral("1The call was not a JSON object."));
        co_return;
    }
    // Awaited into a variable declared here: GCC 12 may lose a value co_awaited into an
    // existing one.
    QCoro::Task<QByteArray> handling = m_callHandler(
        request, [caller] { return caller && caller->state() == QLocalSocket::ConnectedState; });
    const QByteArray reply = co_await handling;
    send(reply);
}
