#pragma once

#include "Confinement.h"
#include "SharedFolder.h"

#include <QList>

// Puts the calling process where the file tools run: first everything the tools load lazily
// from disk is loaded, then the process is confined to the shared folders by the kernel (when
// wanted and possible) and filtered to the system calls the tools need. For good: used by the
// worker process, and by the `call` command for its one call.
namespace ToolSandbox {

Confinement enter(const QList<SharedFolder>& folders, bool kernelConfinement);

} // namespace ToolSandbox
