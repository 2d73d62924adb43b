#pragma once

#include <functional>

// Waits for a condition while the event loop runs at full speed. QTest::qWaitFor sleeps 10 ms
// between its turns of the loop, which would make every message that passes through this
// process (the tap, the agent's calls) wait that long.
class EventWait {
public:
    // True as soon as `condition` holds, false when `timeoutMs` passed first.
    static bool until(const std::function<bool()>& condition, int timeoutMs);
    // Lets the loop run for `ms`.
    static void pause(int ms);
};
