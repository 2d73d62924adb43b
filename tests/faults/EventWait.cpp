#include "EventWait.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

bool EventWait::until(const std::function<bool()>& condition, int timeoutMs) {
    if (condition()) {
        return true;
    }
    const QDeadlineTimer deadline(timeoutMs);
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (condition() || deadline.hasExpired()) {
            loop.quit();
        }
    });
    check.start(2);
    loop.exec();
    return condition();
}

void EventWait::pause(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}
