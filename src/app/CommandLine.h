#pragma once

// The executable's front door: picks the command, or starts the companion itself (in the tray,
// or --headless), and returns the process's exit status.
class CommandLine {
public:
    static int run(int argc, char* argv[]);
};
