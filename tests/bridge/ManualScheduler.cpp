#include "ManualScheduler.h"

#include <algorithm>

BridgeScheduler::TimerId ManualScheduler::schedule(std::chrono::milliseconds delay,
                                                   Callback callback) {
    const TimerId id = ++m_lastId;
    m_entries.insert(id, Entry{m_now + delay, std::move(callback)});
    return id;
}

void ManualScheduler::cancel(TimerId id) {
    m_entries.remove(id);
}

void ManualScheduler::advance(std::chrono::milliseconds step) {
    const std::chrono::milliseconds end = m_now + step;
    for (;;) {
        auto next = m_entries.end();
        for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
            if (it->due <= end && (next == m_entries.end() || it->due < next->due)) {
                next = it;
            }
        }
        if (next == m_entries.end()) {
            break;
        }
        m_now = next->due;
        const Callback callback = next->callback;
        m_entries.erase(next);
        callback();
    }
    m_now = end;
}

QList<qint64> ManualScheduler::pendingDelays() const {
    QList<qint64> delays;
    for (const Entry& entry : m_entries) {
        delays.append((entry.due - m_now).count());
    }
    std::sort(delays.begin(), delays.end());
    return delays;
}
