#include "FileWorker.h"

#include "FileService.h"
#include "FileState.h"
#include "JsonReader.h"
#include "VersionStore.h"

#include <QCoreApplication>
#include <QCoroFuture>
#include <QCoroSignal>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QPointer>
#include <QProcess>
#include <QPromise>
#include <QSocketNotifier>
#include <QThreadPool>
#include <QTimer>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcWorker, "quillmar.worker", QtWarningMsg)

namespace {

QString describeDuration(std::chrono::milliseconds duration) {
    const qint64 seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
    if (seconds >= 120 && seconds % 60 == 0) {
        return QStringLiteral("%1 minutes").arg(seconds / 60);
    }
    return seconds == 1 ? QStringLiteral("1 second") : QStringLiteral("%1 seconds").arg(seconds);
}

} // namespace

// One running worker process and the companion's end of its socket.
struct FileWorker::Instance {
    quint64 generation = 0;
    QPointer<QProcess> process;
    int socket = -1;
    QSocketNotifier* reader = nullptr;
    QSocketNotifier* writer = nullptr;
    QByteArray input;
    QByteArray output;
    QQueue<WorkerProtocol::Frame> inbox;
    // Descriptors passed alongside frames, in the order they came.
    QQueue<int> descriptors;
    bool ended = false;
    QString endReason;

    Instance() = default;
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    // Closes our end; a process still running is killed and reaped when it has gone. May run
    // inside a notifier's own signal, so nothing is deleted at once.
    ~Instance() {
        closeSocket();
        if (process) {
            QObject::disconnect(process, nullptr, nullptr, nullptr);
            if (process->state() != QProcess::NotRunning) {
                QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
                process->kill();
            } else {
                process->deleteLater();
            }
        }
    }

    void closeSocket() {
        for (QSocketNotifier* notifier : {reader, writer}) {
            if (notifier) {
                notifier->setEnabled(false);
                notifier->deleteLater();
            }
        }
        reader = writer = nullptr;
        while (!descriptors.isEmpty()) {
            ::close(descriptors.dequeue());
        }
        if (socket >= 0) {
            ::close(socket);
            socket = -1;
        }
    }
};

FileWorker::FileWorker(QString program, Approver approver, QObject* parent)
    : QObject(parent), m_program(std::move(program)), m_approver(std::move(approver)),
      m_confinement(Confinement::expected()), m_idleTimer(new QTimer(this)) {
    m_idleTimer->setSingleShot(true);
    QObject::connect(m_idleTimer, &QTimer::timeout, this, [this] {
        if (!m_busy) {
            stopInstance(QString());
        }
    });
}

FileWorker::~FileWorker() {
    if (!m_instance || !m_instance->process) {
        return;
    }
    // Closing our end lets the worker finish by itself; it is killed only if it does not.
    QProcess* process = m_instance->process;
    QObject::disconnect(process, nullptr, this, nullptr);
    m_instance->closeSocket();
    if (!process->waitForFinished(500)) {
        process->kill();
        process->waitForFinished(500);
    }
}

QString FileWorker::defaultProgram() {
    // For development tools and tests that run from elsewhere in the build tree.
    if (const QString chosen = qEnvironmentVariable("QUILLMAR_FILE_WORKER"); !chosen.isEmpty()) {
        return chosen;
    }
    const QString here = QCoreApplication::applicationDirPath();
    const QString installed =
        QDir::cleanPath(here + QStringLiteral("/" QUILLMAR_WORKER_RELATIVE_PATH));
    if (QFileInfo(installed).isExecutable()) {
        return installed;
    }
    const QString beside = here + QStringLiteral("/quillmar-file-worker");
    return QFileInfo(beside).isExecutable() ? beside : installed;
}

bool FileWorker::programFound() const {
    return QFileInfo(m_program).isExecutable();
}

void FileWorker::setFolders(const QList<SharedFolder>& folders) {
    if (folders != m_folders) {
        m_folders = folders;
        m_setupChanged = true;
    }
}

void FileWorker::setOwnFiles(const QStringList& ownFiles) {
    if (ownFiles != m_ownFiles) {
        m_ownFiles = ownFiles;
        m_setupChanged = true;
    }
}

void FileWorker::setKernelConfinement(bool wanted) {
    if (wanted != m_kernelConfinement) {
        m_kernelConfinement = wanted;
        m_setupChanged = true;
    }
}

void FileWorker::setLimits(const Limits& limits) {
    m_limits = limits;
}

void FileWorker::setVersionStore(VersionStore* store) {
    const bool keepBefore = m_versions && m_versions->keepsVersions();
    m_versions = store;
    if (keepBefore != (store && store->keepsVersions())) {
        m_setupChanged = true;
    }
}

qint64 FileWorker::processId() const {
    return m_instance && m_instance->process && !m_instance->ended
               ? m_instance->process->processId()
               : 0;
}

QByteArray FileWorker::setupPayload() const {
    QJsonArray folders;
    for (const SharedFolder& folder : m_folders) {
        folders.append(QJsonObject{{QStringLiteral("name"), folder.name},
                                   {QStringLiteral("path"), folder.path},
                                   {QStringLiteral("writable"), !folder.readOnly}});
    }
    const QJsonObject setup{{QStringLiteral("folders"), folders},
                            {QStringLiteral("own"), QJsonArray::fromStringList(m_ownFiles)},
                            {QStringLiteral("confine"), m_kernelConfinement},
                            {QStringLiteral("keep"), m_versions && m_versions->keepsVersions()}};
    return QJsonDocument(setup).toJson(QJsonDocument::Compact);
}

ToolResult FileWorker::failure(const QString& message) const {
    return ToolResult(FileService::errorObject(message));
}

QString FileWorker::lostMessage() const {
    const QString reason = m_instance ? m_instance->endReason : m_lostReason;
    return QStringLiteral("The file tools stopped unexpectedly while handling this call (%1). "
                          "Try again: they start afresh for the next call.")
        .arg(reason.isEmpty() ? QStringLiteral("no reason given") : reason);
}

QCoro::Task<ToolResult> FileWorker::run(QString method, QJsonObject params, Approver approver) {
    const QPointer<FileWorker> self(this);
    while (m_busy) {
        co_await qCoro(this, &FileWorker::callFinished);
        if (!self) {
            co_return ToolResult(
                FileService::errorObject(QStringLiteral("The companion is shutting down.")));
        }
    }
    m_busy = true;
    m_idleTimer->stop();
    QCoro::Task<ToolResult> call =
        runOne(std::move(method), std::move(params), approver ? std::move(approver) : m_approver);
    ToolResult result = co_await call;
    if (self) {
        m_busy = false;
        m_idleTimer->start(m_limits.idle);
        emit callFinished();
    }
    co_return result;
}

QCoro::Task<ToolResult> FileWorker::runOne(QString method, QJsonObject params, Approver approver) {
    const QPointer<FileWorker> self(this);
    QCoro::Task<QString> starting = ensureStarted();
    const QString startProblem = co_await starting;
    if (!self) {
        co_return ToolResult(
            FileService::errorObject(QStringLiteral("The companion is shutting down.")));
    }
    if (!startProblem.isEmpty()) {
        co_return failure(QStringLiteral("The file tools could not be started: ") + startProblem +
                          u'.');
    }
    const quint64 generation = m_instance->generation;
    m_lastCall = CallReport();
    // Descriptors a call did not use do not outlive it.
    while (!m_instance->descriptors.isEmpty()) {
        ::close(m_instance->descriptors.dequeue());
    }
    send(WorkerProtocol::Kind::Call, QJsonDocument(QJsonObject{{QStringLiteral("method"), method},
                                                               {QStringLiteral("params"), params}})
                                         .toJson(QJsonDocument::Compact));

    QElapsedTimer clock;
    clock.start();
    qint64 askingMs = 0;
    while (true) {
        if (!m_instance || m_instance->generation != generation) {
            co_return failure(lostMessage());
        }
        if (!m_instance->inbox.isEmpty()) {
            const WorkerProtocol::Frame frame = m_instance->inbox.dequeue();
            if (frame.kind == WorkerProtocol::Kind::Result && !frame.payload.isEmpty()) {
                const QByteArray body = frame.payload.mid(1);
                if (frame.payload.front() == '\0') {
                    co_return ToolResult::fromJson(body);
                }
                co_return failure(QString::fromUtf8(body));
            }
            if (frame.kind == WorkerProtocol::Kind::Previous) {
                QElapsedTimer keeping;
                keeping.start();
                QCoro::Task<bool> kept = keepPrevious(generation, frame.payload);
                const bool stillThere = co_await kept;
                if (!self) {
                    co_return ToolResult(FileService::errorObject(
                        QStringLiteral("The companion is shutting down.")));
                }
                askingMs += keeping.elapsed();
                if (!stillThere) {
                    co_return failure(lostMessage());
                }
                if (!m_instance->ended) {
                    send(WorkerProtocol::Kind::Kept, QByteArrayView("\x01", 1));
                }
                continue;
            }
            if (frame.kind == WorkerProtocol::Kind::Written) {
                noteWritten(frame.payload);
                continue;
            }
            if (frame.kind == WorkerProtocol::Kind::Summary) {
                noteSummary(frame.payload);
                continue;
            }
            if (frame.kind != WorkerProtocol::Kind::Approve) {
                stopInstance(QStringLiteral("it answered out of turn"));
                co_return failure(QStringLiteral("The file tools answered out of turn and have "
                                                 "been stopped. Try again."));
            }
            const QJsonObject question = JsonReader::parse(frame.payload).object();
            QElapsedTimer asking;
            asking.start();
            bool allowed = false;
            if (approver) {
                QCoro::Task<bool> answer =
                    approver(question.value(QStringLiteral("path")).toString(),
                             question.value(QStringLiteral("bytes")).toInteger());
                allowed = co_await answer;
            }
            if (!self) {
                co_return ToolResult(
                    FileService::errorObject(QStringLiteral("The companion is shutting down.")));
            }
            askingMs += asking.elapsed();
            m_lastCall.declined = !allowed;
            // A worker that went away while the user was asked takes the answer with it.
            if (!m_instance || m_instance->generation != generation) {
                co_return failure(lostMessage());
            }
            // One that ended meanwhile is reported below, as when it ends while working.
            if (!m_instance->ended) {
                send(WorkerProtocol::Kind::Answer,
                     allowed ? QByteArrayView("\x01", 1) : QByteArrayView("\x00", 1));
            }
            continue;
        }
        if (m_instance->ended) {
            const ToolResult lost = failure(lostMessage());
            const QString reason = m_instance->endReason;
            m_instance.reset();
            emit workerLost(reason);
            co_return lost;
        }
        const auto left = m_limits.call - std::chrono::milliseconds(clock.elapsed() - askingMs);
        if (left <= std::chrono::milliseconds(0)) {
            const QString limit = describeDuration(m_limits.call);
            stopInstance(QStringLiteral("a call took longer than ") + limit);
            co_return failure(QStringLiteral("The call took longer than %1 and was stopped. The "
                                             "file tools start afresh for the next call.")
                                  .arg(limit));
        }
        auto arrival = qCoro(this, &FileWorker::inboxChanged, left);
        co_await arrival;
        if (!self) {
            co_return ToolResult(
                FileService::errorObject(QStringLiteral("The companion is shutting down.")));
        }
    }
}

QCoro::Task<QString> FileWorker::ensureStarted() {
    const QPointer<FileWorker> self(this);
    if (m_instance && !m_instance->ended && !m_setupChanged) {
        co_return QString();
    }
    // A worker's confinement cannot be widened: new folders need a new worker.
    m_instance.reset();
    QString why;
    if (!startInstance(why)) {
        co_return why;
    }
    m_setupChanged = false;
    const quint64 generation = m_instance->generation;
    send(WorkerProtocol::Kind::Setup, setupPayload());

    QElapsedTimer clock;
    clock.start();
    while (true) {
        if (!m_instance || m_instance->generation != generation) {
            co_return QStringLiteral("it was stopped while starting");
        }
        if (!m_instance->inbox.isEmpty()) {
            const WorkerProtocol::Frame frame = m_instance->inbox.dequeue();
            if (frame.kind != WorkerProtocol::Kind::Ready) {
                stopInstance(QStringLiteral("it did not start properly"));
                co_return QStringLiteral("it did not start properly");
            }
            const QJsonObject ready = JsonReader::parse(frame.payload).object();
            const int abi = ready.value(QStringLiteral("abi")).toInt();
            const QString reason = ready.value(QStringLiteral("reason")).toString();
            Confinement confinement(Confinement::Kind::CompanionOnly, abi, reason);
            if (ready.value(QStringLiteral("confined")).toBool()) {
                confinement = Confinement(Confinement::Kind::Kernel, abi);
            } else if (!m_kernelConfinement) {
                confinement = Confinement(Confinement::Kind::TurnedOff, abi);
            } else {
                qCWarning(lcWorker) << "file tools not confined by the kernel:" << reason;
            }
            if (!(confinement == m_confinement)) {
                m_confinement = confinement;
                emit confinementChanged();
            }
            co_return QString();
        }
        if (m_instance->ended) {
            const QString reason = m_instance->endReason;
            m_instance.reset();
            co_return reason;
        }
        const auto left = m_limits.start - std::chrono::milliseconds(clock.elapsed());
        if (left <= std::chrono::milliseconds(0)) {
            const QString problem =
                QStringLiteral("it did not answer within ") + describeDuration(m_limits.start);
            stopInstance(problem);
            co_return problem;
        }
        auto arrival = qCoro(this, &FileWorker::inboxChanged, left);
        co_await arrival;
        if (!self) {
            co_return QStringLiteral("the companion is shutting down");
        }
    }
}

bool FileWorker::startInstance(QString& why) {
    if (!programFound()) {
        why = m_program + QStringLiteral(" is missing");
        return false;
    }
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        why = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    auto instance = std::make_unique<Instance>();
    const quint64 generation = ++m_generation;
    instance->generation = generation;
    instance->socket = pair[0];

    auto* process = new QProcess(this);
    instance->process = process;
    process->setProgram(m_program);
    process->setStandardInputFile(QProcess::nullDevice());
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const int childEnd = pair[1];
    // The worker talks through its standard input and output, both its end of the socket.
    process->setChildProcessModifier([childEnd] {
        ::dup2(childEnd, STDIN_FILENO);
        ::dup2(childEnd, STDOUT_FILENO);
    });
    QObject::connect(process, &QProcess::finished, this,
                     [this, generation](int code, QProcess::ExitStatus status) {
                         instanceEnded(generation,
                                       status == QProcess::CrashExit
                                           ? QStringLiteral("stopped by signal %1").arg(code)
                                           : QStringLiteral("exit status %1").arg(code));
                     });
    QObject::connect(process, &QProcess::errorOccurred, this,
                     [this, generation, process](QProcess::ProcessError error) {
                         if (error == QProcess::FailedToStart) {
                             instanceEnded(generation, process->errorString());
                         }
                     });
    process->start();
    ::close(childEnd);
    if (process->state() == QProcess::NotRunning) {
        why = process->errorString();
        return false; // the instance's destructor cleans up
    }
    ::fcntl(pair[0], F_SETFL, ::fcntl(pair[0], F_GETFL) | O_NONBLOCK);
    instance->reader = new QSocketNotifier(pair[0], QSocketNotifier::Read, this);
    QObject::connect(instance->reader, &QSocketNotifier::activated, this,
                     [this, generation] { readAvailable(generation); });
    instance->writer = new QSocketNotifier(pair[0], QSocketNotifier::Write, this);
    instance->writer->setEnabled(false);
    QObject::connect(instance->writer, &QSocketNotifier::activated, this,
                     [this, generation] { flush(generation); });
    m_instance = std::move(instance);
    qCDebug(lcWorker) << "file tools started, process" << process->processId();
    return true;
}

void FileWorker::stopInstance(const QString& reason) {
    if (!m_instance) {
        return;
    }
    m_instance.reset();
    m_lostReason = reason;
    if (!reason.isEmpty()) {
        qCWarning(lcWorker) << "file tools stopped:" << reason;
        emit workerLost(reason);
    }
}

void FileWorker::instanceEnded(quint64 generation, const QString& reason) {
    if (!m_instance || m_instance->generation != generation || m_instance->ended) {
        return;
    }
    m_instance->ended = true;
    m_instance->endReason = reason;
    m_instance->closeSocket();
    qCWarning(lcWorker) << "file tools ended:" << reason;
    if (m_busy) {
        emit inboxChanged(); // the call in progress reports it
        return;
    }
    m_instance.reset();
    emit workerLost(reason);
}

void FileWorker::readAvailable(quint64 generation) {
    if (!m_instance || m_instance->generation != generation || m_instance->socket < 0) {
        return;
    }
    Instance& instance = *m_instance;
    bool arrived = false;
    while (true) {
        char chunk[64 * 1024];
        iovec space{chunk, sizeof chunk};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
        msghdr message{};
        message.msg_iov = &space;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = ::recvmsg(instance.socket, &message, MSG_CMSG_CLOEXEC);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
                const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                for (std::size_t i = 0; i < count; ++i) {
                    int descriptor = -1;
                    std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                    instance.descriptors.enqueue(descriptor);
                }
            }
        }
        if (got <= 0) {
            // The worker is going: its exit status (or signal) says why, when it comes.
            instance.reader->setEnabled(false);
            if (instance.process && instance.process->state() != QProcess::NotRunning) {
                instance.process->kill();
            }
            break;
        }
        instance.input.append(chunk, got);
        bool malformed = false;
        while (std::optional<WorkerProtocol::Frame> frame =
                   WorkerProtocol::take(instance.input, malformed)) {
            instance.inbox.enqueue(std::move(*frame));
            arrived = true;
        }
        if (malformed) {
            stopInstance(QStringLiteral("it sent a malformed message"));
            emit inboxChanged();
            return;
        }
    }
    if (arrived) {
        emit inboxChanged();
    }
}

void FileWorker::flush(quint64 generation) {
    if (!m_instance || m_instance->generation != generation || m_instance->socket < 0) {
        return;
    }
    Instance& instance = *m_instance;
    qsizetype sent = 0;
    while (sent < instance.output.size()) {
        // A worker that has just died must fail the write, not raise SIGPIPE in whatever
        // process hosts this class.
        const ssize_t n = ::send(instance.socket, instance.output.constData() + sent,
                                 std::size_t(instance.output.size() - sent), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                instance.output.clear(); // the worker is gone; its end reports it
                sent = 0;
            }
            break;
        }
        sent += n;
    }
    instance.output.remove(0, sent);
    instance.writer->setEnabled(!instance.output.isEmpty());
}

bool FileWorker::send(WorkerProtocol::Kind kind, QByteArrayView payload) {
    if (!m_instance || m_instance->socket < 0) {
        return false;
    }
    m_instance->output.append(WorkerProtocol::encode(kind, payload));
    // Written at once: the worker is waiting for it.
    flush(m_instance->generation);
    return true;
}

QCoro::Task<bool> FileWorker::keepPrevious(quint64 generation, QByteArray about) {
    const QPointer<FileWorker> self(this);
    const QJsonObject object = JsonReader::parse(about).object();
    int descriptor = -1;
    if (object.value(QStringLiteral("readable")).toBool() && !m_instance->descriptors.isEmpty()) {
        descriptor = m_instance->descriptors.dequeue();
    }
    const std::optional<FileState> before =
        FileState::fromJson(object.value(QStringLiteral("before")));
    if (!m_versions || !before) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        co_return true;
    }
    const QString path = object.value(QStringLiteral("path")).toString();
    const QByteArray real =
        QByteArray::fromBase64(object.value(QStringLiteral("real")).toString().toLatin1());
    // A large file takes a while to copy: the companion goes on meanwhile. The store's folder
    // is the companion's own; the worker never sees it.
    VersionStore* store = m_versions;
    auto promise = std::make_shared<QPromise<VersionStore::Kept>>();
    QFuture<VersionStore::Kept> copying = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, store, path, real, descriptor, before] {
        promise->addResult(store->keep(path, real, descriptor, *before));
        promise->finish();
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    });
    const VersionStore::Kept kept = co_await copying;
    if (!self) {
        co_return false;
    }
    m_lastCall.versionId = kept.id;
    if (kept.id.isEmpty()) {
        m_lastCall.versionNote = QStringLiteral("previous version not kept: ") + kept.problem;
    }
    co_return m_instance && m_instance->generation == generation;
}

void FileWorker::noteWritten(const QByteArray& report) {
    const QJsonObject object = JsonReader::parse(report).object();
    const std::optional<FileState> after =
        FileState::fromJson(object.value(QStringLiteral("after")));
    if (!m_versions || !after) {
        return;
    }
    if (object.value(QStringLiteral("created")).toBool()) {
        const QByteArray real =
            QByteArray::fromBase64(object.value(QStringLiteral("real")).toString().toLatin1());
        const VersionStore::Kept kept = m_versions->recordCreated(
            object.value(QStringLiteral("path")).toString(), real, *after);
        m_lastCall.versionId = kept.id;
        m_lastCall.versionNote = kept.id.isEmpty()
                                     ? QStringLiteral("new file, not recorded: ") + kept.problem
                                     : QStringLiteral("new file");
        return;
    }
    if (!m_lastCall.versionId.isEmpty()) {
        m_versions->finish(m_lastCall.versionId, *after);
    }
}

void FileWorker::noteSummary(const QByteArray& summary) {
    const QJsonObject object = JsonReader::parse(summary).object();
    m_lastCall.bytes = object.value(QStringLiteral("bytes")).toInteger(-1);
    m_lastCall.items = object.value(QStringLiteral("items")).toInteger(-1);
}
