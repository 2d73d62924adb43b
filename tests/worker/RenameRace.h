#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <thread>

// Keeps exchanging two directory entries on a thread of its own (renameat2 with
// RENAME_EXCHANGE, so that both names always exist), while calls go through one of the names
// and meet either entry at any step of their way.
class RenameRace {
public:
    RenameRace(const QString& first, const QString& second);
    ~RenameRace();
    RenameRace(const RenameRace&) = delete;
    RenameRace& operator=(const RenameRace&) = delete;

    // Starts exchanging; it ends by itself after `most` exchanges, so a test that goes wrong
    // cannot leave it running.
    void start(quint64 most);
    // Waits for the thread and puts the entries back where they were; the exchanges made.
    quint64 stop();
    // The errno of the first exchange that failed, 0 when none did.
    int error() const { return m_error.load(); }

private:
    bool exchange() const;

    QByteArray m_first;
    QByteArray m_second;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<quint64> m_exchanges{0};
    std::atomic<int> m_error{0};
};
