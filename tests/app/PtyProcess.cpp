#include "PtyProcess.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

namespace {

std::vector<char*> pointersTo(std::vector<QByteArray>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (QByteArray& string : strings) {
        pointers.push_back(string.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

PtyProcess::~PtyProcess() {
    kill();
}

bool PtyProcess::start(const QString& program, const QStringList& arguments,
                       const QProcessEnvironment& environment, const QByteArray& typeAhead) {
    // Everything the child needs is prepared before the fork: after it, only exec.
    std::vector<QByteArray> argv{program.toLocal8Bit()};
    for (const QString& argument : arguments) {
        argv.push_back(argument.toLocal8Bit());
    }
    std::vector<QByteArray> envp;
    for (const QString& entry : environment.toStringList()) {
        envp.push_back(entry.toLocal8Bit());
    }
    std::vector<char*> argvPointers = pointersTo(argv);
    std::vector<char*> envpPointers = pointersTo(envp);

    int terminal = -1;
    if (::openpty(&m_master, &terminal, nullptr, nullptr, nullptr) != 0) {
        return false;
    }
    ::fcntl(m_master, F_SETFD, FD_CLOEXEC);
    // The echo comes once the line discipline holds the bytes, partial line or not.
    if (!typeAhead.isEmpty() && (!type(typeAhead) || !waitForOutput(typeAhead))) {
        ::close(terminal);
        return false;
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        if (::login_tty(terminal) != 0) {
            ::_exit(127);
        }
        ::execve(argvPointers[0], argvPointers.data(), envpPointers.data());
        ::_exit(127);
    }
    // Only the child keeps the terminal open: its end is the end of the output.
    ::close(terminal);
    return m_pid > 0;
}

bool PtyProcess::readSome(int timeoutMs) {
    if (m_master < 0) {
        return false;
    }
    pollfd descriptor{m_master, POLLIN, 0};
    const int ready = ::poll(&descriptor, 1, timeoutMs);
    if (ready < 0) {
        return errno == EINTR;
    }
    if (ready == 0) {
        return true;
    }
    char buffer[4096];
    const ssize_t got = ::read(m_master, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
        return true;
    }
    if (got <= 0) {
        // EIO once the child's side of the terminal is closed: the end of the output.
        return false;
    }
    m_output.append(buffer, got);
    return true;
}

bool PtyProcess::waitForOutput(const QByteArray& text, int timeoutMs) {
    const QDeadlineTimer deadline(timeoutMs);
    while (!output().contains(text)) {
        if (deadline.hasExpired() || !readSome(int(deadline.remainingTime()))) {
            return output().contains(text);
        }
    }
    return true;
}

bool PtyProcess::readAvailable() {
    for (qsizetype before = -1; before != m_output.size();) {
        before = m_output.size();
        if (!readSome(0)) {
            return false;
        }
    }
    return true;
}

bool PtyProcess::type(const QByteArray& bytes) {
    return m_master >= 0 &&
           ::write(m_master, bytes.constData(), size_t(bytes.size())) == ssize_t(bytes.size());
}

int PtyProcess::waitForExit(int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired() && readSome(int(deadline.remainingTime()))) {
    }
    int status = 0;
    pid_t waited = 0;
    while ((waited = ::waitpid(m_pid, &status, WNOHANG)) == 0 && !deadline.hasExpired()) {
        ::usleep(10000);
    }
    if (waited != m_pid) {
        kill();
        return -1;
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

QByteArray PtyProcess::output() const {
    QByteArray shown = m_output;
    return shown.replace("\r\n", "\n");
}

void PtyProcess::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    if (m_master >= 0) {
        ::close(m_master);
        m_master = -1;
    }
}
