#pragma once

#include "AccessPolicy.h"
#include "WorkerProtocol.h"
#include "WriteRecorder.h"

#include <QByteArray>

class ToolResult;

#include <optional>

// The worker process's side of the protocol: takes its setup, confines itself, then answers
// the companion's calls one at a time with the file tools, asking back before a write. It
// blocks on its socket and does nothing else, so it needs no event loop.
class FileToolWorker : private WriteRecorder {
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
    // Sends a frame with `descriptor` passed alongside (SCM_RIGHTS).
    bool writeWithDescriptor(WorkerProtocol::Kind kind, QByteArrayView payload, int descriptor);
    // The Summary frame of a successful result; empty for an error.
    static QByteArray summaryFrame(const ToolResult& result);

    void replacing(const PendingWrite& write, int previous, const struct stat& before) override;
    void written(const PendingWrite& write, bool created, const struct stat* after) override;

    int m_input;
    int m_output;
    QByteArray m_buffer;
    std::optional<AccessPolicy> m_policy;
    bool m_lost = false;
    // Whether the companion keeps what writes replace.
    bool m_keep = false;
};
