#pragma once

#include "BridgeScheduler.h"

#include <QList>
#include <QMap>

// A clock that only moves when the test says so. advance() runs every callback that falls due,
// in time order (ties in scheduling order), each with the clock set to its due time.
class ManualScheduler final : public BridgeScheduler {
public:
    TimerId schedule(std::chrono::milliseconds delay, Callback callback) override;
    void cancel(TimerId id) override;

    void advance(std::chrono::milliseconds step);
    std::chrono::milliseconds now() const { return m_now; }
    // Time left on each pending callback, soonest first.
    QList<qint64> pendingDelays() const;

private:
    struct Entry {
        std::chrono::milliseconds due;
        Callback callback;
    };

    std::chrono::milliseconds m_now{0};
    TimerId m_lastId = 0;
    QMap<TimerId, Entry> m_entries;
};
