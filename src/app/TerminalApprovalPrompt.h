#pragma once

#include "ApprovalPrompt.h"

// Asks on the terminal ("y" or "yes" allows, anything else refuses). Without a terminal on
// standard input nobody can answer, so the write is refused at once. Input typed before the
// question appears is discarded: only a line typed after it is the answer.
class TerminalApprovalPrompt : public ApprovalPrompt {
public:
    QCoro::Task<bool> ask(QString path, qint64 bytes) override;

    static bool terminalAvailable();
};
