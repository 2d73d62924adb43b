#pragma once

#include "Command.h"

// `folders access NAME read-only|read-write`: what agents may do in a shared folder.
class FoldersAccessCommand : public Command {
public:
    FoldersAccessCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
