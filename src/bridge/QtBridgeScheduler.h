#pragma once

#include "BridgeScheduler.h"

#include <QHash>

class QTimer;

// The real clock: one single-shot QTimer per scheduled callback, on the current thread.
class QtBridgeScheduler final : public BridgeScheduler {
public:
    QtBridgeScheduler() = default;
    ~QtBridgeScheduler() override;

    TimerId schedule(std::chrono::milliseconds delay, Callback callback) override;
    void cancel(TimerId id) override;

private:
    QHash<TimerId, QTimer*> m_timers;
    TimerId m_lastId = 0;
};
