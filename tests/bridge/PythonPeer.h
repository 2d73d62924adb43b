#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>

#include <chrono>
#include <optional>

// tests/bridge/ws_peer.py as a child: Debian's python3-websockets serving on 127.0.0.1, an
// implementation of the protocol independent of the companion's. Its reports (one JSON object
// a line) are collected as they arrive. It stops by itself when its standard input closes,
// which the destructor does.
class PythonPeer {
public:
    PythonPeer();
    ~PythonPeer();
    PythonPeer(const PythonPeer&) = delete;
    PythonPeer& operator=(const PythonPeer&) = delete;

    // Starts the peer and waits until it listens; false (with why in describe()) if it cannot.
    bool start();
    quint16 port() const { return m_port; }

    // The first report of `event` from `connection` (any connection when 0) not taken before,
    // waiting up to `timeout` for it. Taken reports are not returned again.
    std::optional<QJsonObject> take(const QString& event, int connection = 0,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(60));
    // Every report so far, taken or not.
    const QList<QJsonObject>& reports();
    // Reports and standard error, for messages of failed checks.
    QString describe();

    // Closes its standard input and waits for it to end; kills it if it does not.
    void stop();

private:
    void readReports();

    QProcess m_process;
    QList<QJsonObject> m_reports;
    QList<bool> m_taken;
    QByteArray m_pending;
    quint16 m_port = 0;
};
