#pragma once

#include "Command.h"

// `call METHOD [PARAMS_JSON] [--folder NAME=PATH]...`: one tool call, its result printed as one
// line of compact JSON. Exit status 0 for a result, 1 for an error result, 2 for bad usage.
class CallCommand : public Command {
public:
    CallCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
