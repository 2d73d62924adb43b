#pragma once

#include <QtGlobal>

// A free TCP port on 127.0.0.1 below the system's range of ephemeral ports. A server that is
// stopped and started again on its port keeps it that way: while it is down, no outgoing
// connection of the test can be given that port as its own (nor connect to itself through it).
class LoopbackPort {
public:
    // 0 when no free port was found.
    static quint16 pick();
};
