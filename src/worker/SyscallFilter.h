#pragma once

#include <QString>

// A seccomp filter for the file-tool worker, on top of its file-system confinement: the system
// calls it never needs and that Landlock does not govern (sockets of every kind, running
// programs, looking into other processes, changing file modes, owners, times and extended
// attributes, links) fail with EACCES. Everything else is left alone.
namespace SyscallFilter {

// Applies to the calling thread and its future children, for good. An empty text on success,
// else why it could not be applied (the worker then runs without it).
QString install();

} // namespace SyscallFilter
