#pragma once

#include "LineProcess.h"

#include <QStringList>

#include <memory>

// quillmar-devservice as a child process on 127.0.0.1, keeping its paired devices in a state
// file so that it can be stopped and started again on the same port.
class DevServiceProcess {
public:
    DevServiceProcess(QString program, QString stateFile);

    // Starts the service on `port` (0: any free port) and reads its two opening lines.
    bool start(quint16 port = 0);
    void stop();

    quint16 port() const { return m_port; }
    QString baseUrl() const;
    // The code printed at start-up.
    QString pairingCode() const { return m_pairingCode; }
    // The tokens of every device paired so far, as the state file holds them.
    QStringList deviceTokens() const;
    // Everything the service printed, over all its runs.
    QByteArray allOutput();
    QString describe();

private:
    QString m_program;
    QString m_stateFile;
    std::unique_ptr<LineProcess> m_process;
    QByteArray m_earlierOutput;
    quint16 m_port = 0;
    QString m_pairingCode;
};
