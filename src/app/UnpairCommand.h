#pragma once

#include "Command.h"

// `unpair`: forgets the pairing; the shared folders stay.
class UnpairCommand : public Command {
public:
    UnpairCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
