#pragma once

// What one process uses of the application state.
struct AppOptions {
    // Off for command-line administration: the state then never opens the bridge, so a running
    // companion keeps its connection.
    bool bridgeEnabled = true;
    // Off for a process that never uses the pairing (a local agents' server): the token store
    // is then not read, so nothing waits for it or asks to unlock it. Implies no bridge.
    bool pairingUsed = true;
};
