#include "CommandLine.h"

#include <csignal>

int main(int argc, char* argv[]) {
    // A write beyond the file size limit (ulimit -f) then fails with EFBIG and reaches the agent
    // as a failed write; left at its default, the signal would end the whole companion.
    std::signal(SIGXFSZ, SIG_IGN);
    // Likewise a FIFO whose reader goes away mid-write, or a closed standard output: the write
    // fails with EPIPE instead of ending the process.
    std::signal(SIGPIPE, SIG_IGN);
    return CommandLine::run(argc, argv);
}
