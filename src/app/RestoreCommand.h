#pragma once

#include "Command.h"

// `restore ID`: puts back what an agent's write replaced. The local user's action only;
// agents have no way to it.
class RestoreCommand : public Command {
public:
    RestoreCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
