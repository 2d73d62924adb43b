#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <optional>

#include <chrono>
#include <functional>
#include <memory>

class QLocalServer;
class QLocalSocket;
class QLockFile;

// One running companion per user, whatever its mode: two would knock each other's connection off.
// The first launch takes a lock file and listens on a local socket in the user's runtime folder
// ($XDG_RUNTIME_DIR, private to the user, so two users on one machine never meet); a later
// launch finds the lock taken and asks the running one: a desktop companion shows its window
// and the later launch exits; a companion without a window (--headless) cannot, and says so,
// and so does any running companion to a later --headless. The lock, not the socket, decides
// who runs: it records the holder's process id, so a lock left behind by a crash is recognised
// and taken over, and the socket file such a crash leaves is removed by the next holder before
// it listens. Commands ask the running companion for its state, and tell it to read its
// settings again after changing them.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    enum class Role {
        // This process runs the companion; reopenRequested() reports later launches.
        Primary,
        // The running companion was told to show its window; this process should exit(0).
        HandedOver,
        // Another companion runs and keeps the connection (see runningMode(), runningProcess());
        // this process must not run.
        RunningElsewhere,
        // A companion holds the lock but did not answer within the patience (still starting,
        // stopped, hung); this process should not run.
        Unanswered,
        // The runtime folder cannot be used; run without the hand-over.
        Alone,
    };

    // How this process would run: a desktop launch hands over to a desktop companion, a
    // --headless launch to none.
    enum class Launch { Desktop, Headless };

    explicit SingleInstance(QString directory = defaultDirectory(), QObject* parent = nullptr);
    ~SingleInstance() override;

    // Decides this process's role. Blocks for at most `patience` while a starting companion
    // begins listening; call it before the event loop runs.
    Role start(std::chrono::milliseconds patience = std::chrono::seconds(5),
               Launch launch = Launch::Desktop);

    // After RunningElsewhere: the other companion's mode ("desktop", "headless") and process.
    QString runningMode() const { return m_runningMode; }
    qint64 runningProcess() const { return m_runningProcess; }

    // As the running companion: its mode, and its state as commands are to see it (set again
    // whenever it changes; answered without waiting).
    void setMode(const QString& mode) { m_mode = mode; }
    void setState(const QJsonObject& state) { m_state = state; }
    // Runs a tool call that a local agent's process handed over and gives the answer to send
    // back; `stillWanted` turns false once that process has gone.
    using CallHandler =
        std::function<QCoro::Task<QByteArray>(QJsonObject call, std::function<bool()> stillWanted)>;
    void setCallHandler(CallHandler handler) { m_callHandler = std::move(handler); }
    // The recent agent calls as JSON, made only when a command asks for them.
    void setActivitySource(std::function<QJsonArray()> source) {
        m_activitySource = std::move(source);
    }

    // Asks the companion running for `directory`'s user: "status" gives its mode, process and
    // state, "activity" its recent agent calls, "reload" makes it read its settings again,
    // "restored ID" tells it that the user put back the version ID. Nothing when none runs or it
    // does not answer within `timeout`.
    static std::optional<QJsonObject>
    ask(const QString& directory, const QByteArray& request,
        std::chrono::milliseconds timeout = std::chrono::seconds(2));

    // The line that turns a connection into a stream of tool calls handed over by a local
    // agent's process (see CompanionLink): frames of a 4-byte big-endian length, an 8-byte id
    // and the payload, each way. A call is JSON {agent, method, params}; its answer, under the
    // same id, "0" and the result's JSON text, or "1" and an error text. Answers may come in
    // any order.
    static QByteArray callStreamMessage();
    static constexpr qint64 callHeaderSize = 12;
    static QByteArray callFrame(quint64 id, QByteArrayView payload);

    // The process that holds `directory`'s lock, when it still runs; 0 when none does. For when
    // ask() gets no answer: a companion may run and not answer (stopped, or hung).
    static qint64 holder(const QString& directory);

    QString directory() const { return m_directory; }
    QString socketPath() const;
    QString lockPath() const;

    // The user's runtime folder.
    static QString defaultDirectory();
    // What a later launch sends, one line.
    static QByteArray reopenMessage();

signals:
    // A later launch asked for the window.
    void reopenRequested();
    // A command changed the settings, the shared folders or the pairing.
    void reloadRequested();
    // A command put back a kept version.
    void versionRestored(const QString& versionId);

private:
    enum class Answer { None, Shown, Elsewhere };

    bool listen();
    Answer handOver(std::chrono::milliseconds timeout, Launch launch);
    void acceptConnections();
    QByteArray answer(const QByteArray& request);
    void readCalls(QLocalSocket* socket);
    QCoro::Task<> answerCall(QLocalSocket* socket, quint64 id, QByteArray call);

    QString m_directory;
    QString m_mode = QStringLiteral("desktop");
    QJsonObject m_state;
    std::function<QJsonArray()> m_activitySource;
    CallHandler m_callHandler;
    QString m_runningMode;
    qint64 m_runningProcess = 0;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer* m_server = nullptr;
};
