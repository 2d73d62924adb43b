#include "QuitOnSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void forwardSignal(int number) {
    const char byte = char(number);
    [[maybe_unused]] const ssize_t ignored = ::write(signalPipe[1], &byte, 1);
}

constexpr int caught[] = {SIGINT, SIGTERM, SIGHUP};

} // namespace

QuitOnSignals::QuitOnSignals(QObject* parent) : QObject(parent) {
    if (signalPipe[0] < 0 &&
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        return;
    }
    m_notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    QObject::connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
        emit quitRequested(int(byte));
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : caught) {
        ::sigaction(number, &action, nullptr);
    }
}

QuitOnSignals::~QuitOnSignals() {
    if (!m_notifier) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (const int number : caught) {
        ::sigaction(number, &action, nullptr);
    }
}
