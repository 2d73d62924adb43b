#pragma once

#include "Command.h"

// `folders`: lists the shared folders; its actions add, remove and change them.
class FoldersCommand : public Command {
public:
    FoldersCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
