#include "XvfbSession.h"

#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Runs `program` with `arguments` in a child process; `keepOpen` stays open across exec. The
// child's output goes to /dev/null.
pid_t spawn(const QString& program, const QStringList& arguments, int keepOpen = -1) {
    std::vector<QByteArray> storage;
    storage.push_back(QFile::encodeName(program));
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& item : storage) {
        argv.push_back(item.data());
    }
    argv.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid == 0) {
        const int devnull = ::open("/dev/null", O_RDWR);
        if (devnull >= 0) {
            ::dup2(devnull, STDIN_FILENO);
            ::dup2(devnull, STDOUT_FILENO);
            ::dup2(devnull, STDERR_FILENO);
        }
        if (keepOpen >= 0) {
            ::fcntl(keepOpen, F_SETFD, 0);
        }
        ::execvp(argv.front(), argv.data());
        ::_exit(127);
    }
    return pid;
}

void stop(pid_t& pid) {
    if (pid <= 0) {
        return;
    }
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) {
            pid = -1;
            return;
        }
        ::usleep(100 * 1000);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

} // namespace

XvfbSession::~XvfbSession() {
    stopTray();
    stop(m_server);
}

bool XvfbSession::haveExecutable(const QString& name) {
    const QByteArray path = qgetenv("PATH");
    for (const QByteArray& dir : path.split(':')) {
        const QFileInfo candidate(QFile::decodeName(dir) + u'/' + name);
        if (candidate.isFile() && candidate.isExecutable()) {
            return true;
        }
    }
    return false;
}

bool XvfbSession::startServer(QString* why) {
    if (!haveExecutable(QStringLiteral("Xvfb"))) {
        *why = QStringLiteral("Xvfb is not installed");
        return false;
    }
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        *why = QStringLiteral("no pipe");
        return false;
    }
    m_server =
        spawn(QStringLiteral("Xvfb"),
              {QStringLiteral("-displayfd"), QString::number(ready[1]), QStringLiteral("-screen"),
               QStringLiteral("0"), QStringLiteral("800x480x24"), QStringLiteral("-nolisten"),
               QStringLiteral("tcp"), QStringLiteral("-noreset")},
              ready[1]);
    ::close(ready[1]);
    // Xvfb writes the display number, and a line feed, once it accepts connections.
    QByteArray number;
    pollfd wait{ready[0], POLLIN, 0};
    while (!number.endsWith('\n') && ::poll(&wait, 1, 15000) > 0) {
        char buffer[16];
        const ssize_t got = ::read(ready[0], buffer, sizeof(buffer));
        if (got <= 0) {
            break;
        }
        number.append(buffer, int(got));
    }
    ::close(ready[0]);
    if (m_server <= 0 || !number.endsWith('\n')) {
        stop(m_server);
        *why = QStringLiteral("Xvfb did not start");
        return false;
    }
    m_display = ':' + number.trimmed();
    return true;
}

bool XvfbSession::startTray(const QStringList& arguments, QString* why) {
    if (!haveExecutable(QStringLiteral("trayer"))) {
        *why = QStringLiteral("trayer is not installed");
        return false;
    }
    if (m_display.isEmpty()) {
        *why = QStringLiteral("no X server");
        return false;
    }
    qputenv("DISPLAY", m_display);
    m_tray = spawn(QStringLiteral("trayer"), arguments);
    if (m_tray <= 0) {
        *why = QStringLiteral("trayer did not start");
        return false;
    }
    return true;
}

void XvfbSession::stopTray() {
    stop(m_tray);
}
