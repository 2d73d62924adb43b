#pragma once

#include "Command.h"

// `folders add PATH [--read-only]`: shares a folder and prints the name agents use for it.
class FoldersAddCommand : public Command {
public:
    FoldersAddCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
