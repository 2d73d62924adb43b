#pragma once

#include "Command.h"

// `folders remove NAME`: stops sharing the first folder of that name.
class FoldersRemoveCommand : public Command {
public:
    FoldersRemoveCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
