#pragma once

#include "Command.h"
#include "ToolResult.h"

#include <QCoroTask>
#include <QJsonObject>

#include <functional>

class AppState;
class CompanionLink;

// `mcp`: a Model Context Protocol server on standard input and output for agents on this
// computer, offering the four file tools over the same shared folders and under the same rules
// as the service's agents. While a companion runs, each call is handed to it, so that its
// approval alert, its activity and its pause apply; otherwise this process runs the call in a
// confined worker of its own, asking on the terminal (if it has one) before a write.
class McpCommand : public Command {
public:
    McpCommand();

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;

private:
    // `ownState` gives this process's own state, made when the first call runs here.
    static QCoro::Task<ToolResult> runCall(CompanionLink& link,
                                           const std::function<AppState&()>& ownState,
                                           QString method, QJsonObject params, QString agent);
};
