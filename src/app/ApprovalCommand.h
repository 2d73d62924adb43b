#pragma once

#include "Command.h"

// `approval on|off`: whether each agent write is confirmed on this computer.
class ApprovalCommand : public Command {
public:
    ApprovalCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
