#include "FileToolWorker.h"

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

// quillmar-file-worker: started by the companion with its end of a socket as standard input
// and output. Not meant to be run by hand.
int main() {
    // Ends with the companion, even when the companion is killed.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == 1) {
        return 1; // the companion was gone before the line above took effect
    }
    // A write past the file size limit or to a vanished reader fails as a write, not the process.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    // Nothing opened by whoever started us is reachable from here on; the confinement covers
    // only what is opened afterwards.
    ::close_range(3, ~0U, 0);
    if (::chdir("/") != 0) {
        return 1;
    }
    return FileToolWorker(STDIN_FILENO, STDOUT_FILENO).run();
}
