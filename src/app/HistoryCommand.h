#pragma once

#include "Command.h"

// `history`: the versions that agents' writes left behind, newest first.
class HistoryCommand : public Command {
public:
    HistoryCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
