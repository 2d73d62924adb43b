#pragma once

#include "Command.h"

// `status`: pairing, the running companion's connection, the service, the approval setting
// and the shared folders. Never the token.
class StatusCommand : public Command {
public:
    StatusCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
