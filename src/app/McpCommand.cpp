#include "McpCommand.h"

#include "ActivityLog.h"
#include "AppState.h"
#include "ApprovalPrompt.h"
#include "CompanionLink.h"
#include "FileService.h"
#include "FolderStore.h"
#include "McpServer.h"
#include "SingleInstance.h"
#include "TerminalApprovalPrompt.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcMcpCommand, "quillmar.mcp", QtWarningMsg)

namespace {

// Writes all of `bytes` to standard output; false once the client has gone.
bool writeOut(const QByteArray& bytes) {
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, bytes.constData() + written,
                                  std::size_t(bytes.size() - written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            pollfd ready{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&ready, 1, 1000);
            continue;
        }
        if (n <= 0) {
            return false;
        }
        written += n;
    }
    return true;
}

// The calls this process runs itself are told on standard error, one line each.
void announceOwnCalls(AppState& state) {
    QObject::connect(&state.activity(), &ActivityLog::appended, [&state] {
        const QByteArray line =
            "quillmar-companion: " + state.activity().at(0).line().toUtf8() + '\n';
        if (::write(STDERR_FILENO, line.constData(), std::size_t(line.size())) != line.size()) {
            qCDebug(lcMcpCommand) << "a call's line did not reach standard error";
        }
    });
}

} // namespace

// A call goes to the running companion when there is one, else runs here.
QCoro::Task<ToolResult> McpCommand::runCall(CompanionLink& link,
                                            const std::function<AppState&()>& ownState,
                                            QString method, QJsonObject params, QString agent) {
    const QJsonObject call{{QStringLiteral("agent"), agent},
                           {QStringLiteral("method"), method},
                           {QStringLiteral("params"), params}};
    QCoro::Task<std::optional<QByteArray>> handing =
        link.call(QJsonDocument(call).toJson(QJsonDocument::Compact));
    const std::optional<QByteArray> reply = co_await handing;
    if (reply) {
        if (reply->isEmpty()) {
            co_return ToolResult(FileService::errorObject(
                QStringLiteral("The companion stopped while handling this call. Try again.")));
        }
        if (reply->front() == '0') {
            co_return ToolResult::fromJson(reply->mid(1));
        }
        co_return ToolResult(FileService::errorObject(QString::fromUtf8(reply->mid(1))));
    }
    QCoro::Task<ToolResult> running =
        ownState().runAgentCall(std::move(method), std::move(params), std::move(agent));
    ToolResult result = co_await running;
    co_return result;
}

McpCommand::McpCommand()
    : Command(QStringLiteral("mcp"),
              QStringLiteral("serve the shared folders to agents on this computer (Model Context "
                             "Protocol on standard input and output)")) {}

int McpCommand::execute(const QCommandLineParser&, QTextStream&, QTextStream& err) const {
    // A client that goes away makes writes fail, not the process.
    std::signal(SIGPIPE, SIG_IGN);
    // Standard input and output carry the protocol: the question before a write, when this
    // process has to ask it, goes to the terminal itself.
    const int terminal = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::shared_ptr<ApprovalPrompt> prompt;
    if (terminal >= 0) {
        prompt = std::make_shared<TerminalApprovalPrompt>(terminal, terminal);
    }
    // Made only when a call runs here: while a companion runs, it has the state.
    std::unique_ptr<AppState> state;
    const std::function<AppState&()> ownState = [&]() -> AppState& {
        if (!state) {
            state = std::make_unique<AppState>(AppServices{prompt, nullptr, Keychain()},
                                               AppOptions{false, false});
            announceOwnCalls(*state);
        }
        return *state;
    };

    CompanionLink link(SingleInstance::defaultDirectory());
    McpServer server(
        [&link, &ownState](QString method, QJsonObject params, QString agent) {
            return runCall(link, ownState, std::move(method), std::move(params), std::move(agent));
        },
        QCoreApplication::applicationVersion());
    bool clientGone = false;
    QObject::connect(&server, &McpServer::message, [&clientGone](const QByteArray& line) {
        if (!clientGone && !writeOut(line + '\n')) {
            clientGone = true;
            QCoreApplication::quit();
        }
    });

    QByteArray pending;
    qsizetype scanned = 0;
    bool skipping = false; // the rest of a line that was too long
    bool ended = false;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    const auto finish = [&] {
        ended = true;
        input.setEnabled(false);
        // Calls still running are answered before the end.
        if (server.callsInFlight() == 0) {
            QCoreApplication::quit();
        }
    };
    QObject::connect(&server, &McpServer::idle, [&] {
        if (ended) {
            QCoreApplication::quit();
        }
    });
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char chunk[256 * 1024];
        // Readable: one read returns what is there without waiting.
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            return;
        }
        if (got <= 0) {
            finish();
            return;
        }
        pending.append(chunk, got);
        while (true) {
            const qsizetype end = pending.indexOf('\n', scanned);
            if (end < 0) {
                scanned = pending.size();
                if (!skipping && pending.size() > McpServer::longestLine) {
                    clientGone = clientGone || !writeOut(server.tooLong() + '\n');
                    skipping = true;
                }
                if (skipping) {
                    pending.clear();
                    scanned = 0;
                }
                return;
            }
            const QByteArray line = pending.left(end);
            pending.remove(0, end + 1);
            scanned = 0;
            if (skipping) {
                skipping = false;
                continue;
            }
            server.receive(line);
        }
    });

    err << "quillmar-companion: MCP server for local agents, " << FolderStore::load().size()
        << " shared folder(s); calls go to the running companion when there is one.\n"
        << Qt::flush;
    const int status = QCoreApplication::exec();
    if (terminal >= 0) {
        ::close(terminal);
    }
    return clientGone ? 1 : status;
}
