#include "HeadlessRunner.h"

#include "AppState.h"
#include "BridgeClient.h"
#include "TerminalApprovalPrompt.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void forwardSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(signalPipe[1], &byte, 1);
}

} // namespace

int HeadlessRunner::run(QTextStream& out, QTextStream& err) {
    // A signal handler may only write; the event loop picks the byte up and quits.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        err << "quillmar-companion: cannot set up signal handling\n" << Qt::flush;
        return 1;
    }
    QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, [] {
        char byte = 0;
        [[maybe_unused]] const ssize_t ignored = ::read(signalPipe[0], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);

    ApprovalPrompt::install(std::make_shared<TerminalApprovalPrompt>());

    AppState& state = AppState::shared();
    QString lastStatus;
    QString lastProblem;
    state.onChange = [&] {
        if (state.statusText() != lastStatus) {
            lastStatus = state.statusText();
            out << lastStatus << "\n" << Qt::flush;
        }
        // Why, on its own line after what the bridge does; said again only when it changes.
        const QString problem = state.bridge().problem().text();
        if (problem != lastProblem) {
            lastProblem = problem;
            if (!problem.isEmpty()) {
                out << problem << "\n" << Qt::flush;
            }
        }
    };

    if (!state.paired()) {
        err << "quillmar-companion: this computer is not paired. Pair it first with: "
               "quillmar-companion pair CODE\n"
            << Qt::flush;
        return 1;
    }
    if (state.requireWriteApproval() && !TerminalApprovalPrompt::terminalAvailable()) {
        out << "Ask before writing files is on and there is no terminal to ask: agent writes "
               "will be refused. Turn it off with: quillmar-companion approval off\n"
            << Qt::flush;
    }
    out << "Sharing " << state.folders().size()
        << (state.folders().size() == 1 ? " folder" : " folders") << " with " << state.apiBase()
        << "\n"
        << state.fileAccessText() << "\n"
        << Qt::flush;
    // The first worker tells what it really got; said again only when that differs.
    QString lastAccess = state.fileAccessText();
    QObject::connect(&state, &AppState::fileAccessChanged, [&] {
        if (state.fileAccessText() != lastAccess) {
            lastAccess = state.fileAccessText();
            out << lastAccess << "\n" << Qt::flush;
        }
    });
    // The bridge reported its first status before onChange was set.
    state.onChange();

    const int status = QCoreApplication::exec();
    state.onChange = nullptr;
    state.bridge().disconnect();
    out << "Stopped\n" << Qt::flush;
    return status;
}
