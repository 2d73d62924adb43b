#pragma once

#include <QObject>
#include <QString>

#include <chrono>
#include <memory>

class QLocalServer;
class QLockFile;

// One running companion per user. The first launch takes a lock file and listens on a local
// socket in the user's runtime folder ($XDG_RUNTIME_DIR, private to the user, so two users on
// one machine never meet); a later launch finds the lock taken, tells the running one to show
// its window, and exits. The lock, not the socket, decides who runs: it records the holder's
// process id, so a lock left behind by a crash is recognised and taken over, and the socket
// file such a crash leaves is removed by the next holder before it listens.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    enum class Role {
        // This process runs the companion; reopenRequested() reports later launches.
        Primary,
        // The running companion was told to show its window; this process should exit(0).
        HandedOver,
        // A companion holds the lock but never took the message; this process should not run.
        Unanswered,
        // The runtime folder cannot be used; run without the hand-over.
        Alone,
    };

    explicit SingleInstance(QString directory = defaultDirectory(), QObject* parent = nullptr);
    ~SingleInstance() override;

    // Decides this process's role. Blocks for at most `patience` while a starting companion
    // begins listening; call it before the event loop runs.
    Role start(std::chrono::milliseconds patience = std::chrono::seconds(5));

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

private:
    bool listen();
    bool handOver(std::chrono::milliseconds timeout);
    void acceptConnections();

    QString m_directory;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer* m_server = nullptr;
};
