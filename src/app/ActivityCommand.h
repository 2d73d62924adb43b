#pragma once

#include "Command.h"

// `activity`: the running companion's recent agent calls, which only it keeps, in memory.
class ActivityCommand : public Command {
public:
    ActivityCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
