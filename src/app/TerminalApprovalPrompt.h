#pragma once

#include "ApprovalPrompt.h"

#include <unistd.h>

// Asks on a terminal ("y" or "yes" allows, anything else refuses): by default the one on
// standard input, with the question on standard error. Without a terminal nobody can answer, so
// the write is refused at once. Input typed before the question appears is discarded: only a
// line typed after it is the answer.
class TerminalApprovalPrompt : public ApprovalPrompt {
public:
    // `input` and `output` stay the caller's.
    explicit TerminalApprovalPrompt(int input = STDIN_FILENO, int output = STDERR_FILENO);

    QCoro::Task<bool> ask(QString path, qint64 bytes) override;

    // Whether standard input is a terminal.
    static bool terminalAvailable();

private:
    int m_input;
    int m_output;
};
