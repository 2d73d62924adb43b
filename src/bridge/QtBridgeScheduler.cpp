#include "QtBridgeScheduler.h"

#include <QTimer>

QtBridgeScheduler::~QtBridgeScheduler() {
    qDeleteAll(m_timers);
}

BridgeScheduler::TimerId QtBridgeScheduler::schedule(std::chrono::milliseconds delay,
                                                     Callback callback) {
    const TimerId id = ++m_lastId;
    auto* timer = new QTimer;
    timer->setSingleShot(true);
    // Whole-second delays; a precise timer keeps the announced "in 2s" honest.
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, timer,
                     [this, id, timer, callback = std::move(callback)] {
                         // Forget the timer before running: the callback may schedule, cancel, or
                         // destroy us.
                         m_timers.remove(id);
                         timer->deleteLater();
                         callback();
                     });
    m_timers.insert(id, timer);
    timer->start(delay);
    return id;
}

void QtBridgeScheduler::cancel(TimerId id) {
    if (QTimer* timer = m_timers.take(id)) {
        timer->stop();
        timer->deleteLater();
    }
}
