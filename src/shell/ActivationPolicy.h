#pragma once

// Whether the application shows in the task switcher and the dock. On macOS a menu-bar
// application runs as an "accessory" (no Dock icon) and only becomes "regular" while its window
// is up. Linux has nothing like it: a window is in the task bar while it is shown and the tray
// icon is always there, so both calls do nothing. They are kept, and called, in one place so
// that a macOS build can do the real thing here.
class ActivationPolicy {
public:
    static void accessory();
    static void regular();
};
