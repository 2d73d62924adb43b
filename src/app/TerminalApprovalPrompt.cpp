#include "TerminalApprovalPrompt.h"

#include <QCoroFuture>
#include <QPromise>
#include <QSocketNotifier>

#include <cstdio>

#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

// Whatever reached the terminal before the question was shown was not typed in answer to it: a
// stray "y" typed ahead, or bytes another program pushed in. It is thrown away.
void discardTypeAhead(int input) {
    ::tcflush(input, TCIFLUSH);
    // Input already on its way in while flushing may land just after it. Only what poll() calls
    // readable is read (a whole line, or an end of input), so this never waits; the bound keeps
    // a terminal that is typed into without pause from holding up the question.
    for (int round = 0; round < 64; ++round) {
        pollfd ready{input, POLLIN, 0};
        if (::poll(&ready, 1, 0) != 1 || (ready.revents & POLLIN) == 0 ||
            (ready.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            return;
        }
        char buffer[256];
        if (::read(input, buffer, sizeof buffer) < 0) {
            return;
        }
    }
}

} // namespace

TerminalApprovalPrompt::TerminalApprovalPrompt(int input, int output)
    : m_input(input), m_output(output) {}

bool TerminalApprovalPrompt::terminalAvailable() {
    return ::isatty(STDIN_FILENO) == 1;
}

QCoro::Task<bool> TerminalApprovalPrompt::ask(QString path, qint64 bytes) {
    if (m_input < 0 || ::isatty(m_input) != 1) {
        co_return false;
    }
    const QByteArray question =
        messageText().toUtf8() + '\n' + informativeText(path, bytes).toUtf8() + "\nAllow? [y/N] ";
    // Only what is typed once the question is on the screen answers it.
    discardTypeAhead(m_input);
    for (qsizetype written = 0; written < question.size();) {
        const ssize_t n = ::write(m_output, question.constData() + written,
                                  std::size_t(question.size() - written));
        if (n <= 0) {
            break;
        }
        written += n;
    }

    // Wait for the answer without blocking the event loop: the bridge keeps its socket alive.
    QByteArray line;
    QSocketNotifier notifier(m_input, QSocketNotifier::Read);
    while (!line.contains('\n')) {
        // activated() is a private signal: qCoro() would hand its QPrivateSignal argument on as
        // a reference to nothing. A slot without arguments finishes a future instead, and the
        // future's watcher resumes this coroutine from the event loop.
        QPromise<void> readable;
        readable.start();
        const QMetaObject::Connection connection = QObject::connect(
            &notifier, &QSocketNotifier::activated, [&readable] { readable.finish(); });
        co_await readable.future();
        QObject::disconnect(connection);
        char buffer[256];
        const ssize_t got = ::read(m_input, buffer, sizeof buffer);
        if (got <= 0) {
            break; // end of input counts as a refusal
        }
        line.append(buffer, got);
    }
    const QByteArray answer = line.left(line.indexOf('\n')).trimmed().toLower();
    co_return answer == "y" || answer == "yes";
}
