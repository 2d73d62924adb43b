#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Kernel confinement of the file-tool worker: after restrictSelf() the calling thread (and every
// process it starts) can reach only the shared folders, cannot run programs, cannot use TCP and
// cannot talk to anything outside itself. The restriction can never be lifted or widened.
namespace Landlock {

// A folder the worker may reach: read-only, or read-write for folders whose writes are allowed.
struct Folder {
    QByteArray path; // local 8-bit encoded, as open(2) takes it
    bool writable = false;
};

struct Outcome {
    bool confined = false;
    int abi = 0;    // the ABI the ruleset was built for; 0 when the kernel has no Landlock
    QString reason; // why not confined, one sentence; empty when confined
};

// The running kernel's Landlock ABI version; 0 when it has none or it was disabled at boot.
int abi();

// Confines the calling thread and its future children to `folders`. Call it before starting any
// other thread: threads that already exist keep their access. A folder that cannot be opened is
// left out (so its contents stay out of reach). Either the whole ruleset is enforced and confined
// is true, or none of it is and reason says why (no_new_privs may be set by then, which takes
// nothing away). Needs no QCoreApplication.
Outcome restrictSelf(const QList<Folder>& folders);

} // namespace Landlock
