#pragma once

#include "Command.h"

// `pair CODE`: claims the code from the web app and stores the device token.
class PairCommand : public Command {
public:
    PairCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
