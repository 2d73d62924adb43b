#pragma once

#include "Command.h"

// `pause`: closes the connection until `resume`, kept across restarts.
class PauseCommand : public Command {
public:
    PauseCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
