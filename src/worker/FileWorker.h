#pragma once

#include "Confinement.h"
#include "SharedFolder.h"
#include "ToolResult.h"
#include "WorkerProtocol.h"

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>

class QProcess;
class VersionStore;
class QSocketNotifier;
class QTimer;

// The companion's side of the file-tool worker: runs each tool call in a separate, confined
// process (quillmar-file-worker), so that a long walk or read never holds up the event loop and
// a crash or a hang takes only that call with it. Calls are answered strictly one at a time. A
// worker is started on the first call and whenever the shared folders have changed since (its
// confinement cannot be widened), and ends after a while without calls.
class FileWorker : public QObject {
    Q_OBJECT

public:
    // Asked before each write, with what the user is to be shown; true lets it happen.
    using Approver = std::function<QCoro::Task<bool>(QString shownPath, qint64 bytes)>;

    struct Limits {
        // Longest a call may work (time spent waiting for the user does not count).
        std::chrono::milliseconds call{std::chrono::minutes(3)};
        // How long a worker is kept with nothing to do.
        std::chrono::milliseconds idle{std::chrono::minutes(5)};
        // How long a new worker may take to set itself up.
        std::chrono::milliseconds start{std::chrono::seconds(10)};
    };

    // What the last call did, beyond its result: for the activity the user sees.
    struct CallReport {
        // Bytes read or written, entries listed or found; -1 when not applicable.
        qint64 bytes = -1;
        qint64 items = -1;
        // The user said no to the write.
        bool declined = false;
        // The version that undoes the write, or why there is none.
        QString versionId;
        QString versionNote;
    };

    FileWorker(QString program, Approver approver, QObject* parent = nullptr);
    ~FileWorker() override;

    // quillmar-file-worker in its installed place or next to this executable;
    // QUILLMAR_FILE_WORKER names another (development tools and tests).
    static QString defaultProgram();
    const QString& program() const { return m_program; }
    bool programFound() const;

    void setFolders(const QList<SharedFolder>& folders);
    // Files and folders of the companion's own that no call may reach.
    void setOwnFiles(const QStringList& ownFiles);
    // Whether workers confine themselves with Landlock (on unless turned off).
    void setKernelConfinement(bool wanted);
    void setLimits(const Limits& limits);
    // Where writes keep what they replace; none keeps nothing. Not owned.
    void setVersionStore(VersionStore* store);

    // Runs one tool call; never throws. Failures of the worker itself come back as errors.
    // `approver`, when given, asks for this call's write instead of the worker's own.
    QCoro::Task<ToolResult> run(QString method, QJsonObject params, Approver approver = {});

    // As the last worker reported it, or as one would report it before any has run.
    const Confinement& confinement() const { return m_confinement; }
    // The running worker's process id, 0 when none runs.
    qint64 processId() const;
    // About the call that finished last (valid right after run() returns).
    const CallReport& lastCall() const { return m_lastCall; }

signals:
    void confinementChanged();
    // A worker ended without being asked to, or was stopped; `reason` says why.
    void workerLost(const QString& reason);
    // Internal: a frame arrived or the worker ended.
    void inboxChanged();
    // Internal: the call in progress has finished.
    void callFinished();

private:
    struct Instance;

    QCoro::Task<ToolResult> runOne(QString method, QJsonObject params, Approver approver);
    QCoro::Task<QString> ensureStarted();
    bool startInstance(QString& why);
    void stopInstance(const QString& reason);
    void instanceEnded(quint64 generation, const QString& reason);
    void readAvailable(quint64 generation);
    void flush(quint64 generation);
    bool send(WorkerProtocol::Kind kind, QByteArrayView payload);
    QByteArray setupPayload() const;
    ToolResult failure(const QString& message) const;
    // Keeps the bytes a write is about to replace (off the main thread); false if the worker
    // went away meanwhile.
    QCoro::Task<bool> keepPrevious(quint64 generation, QByteArray about);
    void noteWritten(const QByteArray& report);
    void noteSummary(const QByteArray& summary);
    QString lostMessage() const;

    QString m_program;
    Approver m_approver;
    QList<SharedFolder> m_folders;
    QStringList m_ownFiles;
    bool m_kernelConfinement = Confinement::wanted();
    Limits m_limits;
    Confinement m_confinement;

    std::unique_ptr<Instance> m_instance;
    quint64 m_generation = 0;
    // Why the last worker was stopped, for the call that was waiting on it.
    QString m_lostReason;
    bool m_setupChanged = true;
    bool m_busy = false;
    QTimer* m_idleTimer = nullptr;
    VersionStore* m_versions = nullptr;
    CallReport m_lastCall;
};
