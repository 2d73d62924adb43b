#pragma once

#include "AccessPolicy.h"
#include "WorkerProtocol.h"

#include <QByteArray>

#include <optional>

// The worker process's side of the protocol: takes its setup, confines itself, then answers
// the companion's calls one at a time with the file tools, asking back before a write. It
// blocks on its socket and does nothing else, so it needs no event loop.
class FileToolWorker {
public:
    FileToolWorker(int input, int output);

    // Serves until the companion closes the connection; the process's exit status.
    int run();

private:
    std::optional<WorkerProtocol::Frame> read();
    bool write(WorkerProtocol::Kind kind, QByteArrayView payload);
    bool setUp(const QByteArray& setup);
    bool answer(const QByteArray& call);
    bool approve(const QString& shownPath, qint64 bytes);

    int m_input;
    int m_output;
    QByteArray m_buffer;
    std::optional<AccessPolicy> m_policy;
    bool m_lost = false;
};
