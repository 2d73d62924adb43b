#pragma once

#include <QtGlobal>

#include <chrono>
#include <functional>

// Delayed callbacks on the owner's thread. The bridge takes every timer it needs (keep-alive,
// reconnection, handshake time-out) from here, so tests can step through minutes of back-off
// without waiting for them.
class BridgeScheduler {
public:
    using TimerId = quint64;
    using Callback = std::function<void()>;

    BridgeScheduler() = default;
    BridgeScheduler(const BridgeScheduler&) = delete;
    BridgeScheduler& operator=(const BridgeScheduler&) = delete;
    virtual ~BridgeScheduler();

    // Runs `callback` once, `delay` from now, unless cancelled first. Never calls it before
    // returning. The id is never 0.
    virtual TimerId schedule(std::chrono::milliseconds delay, Callback callback) = 0;
    // An id that already ran, was cancelled, or is 0 is ignored.
    virtual void cancel(TimerId id) = 0;
};
