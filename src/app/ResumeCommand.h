#pragma once

#include "Command.h"

// `resume`: lets agents reach the shared folders again after `pause`.
class ResumeCommand : public Command {
public:
    ResumeCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
