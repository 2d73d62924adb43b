#include "SyscallFilter.h"

#include <cerrno>
#include <cstring>

#include <seccomp.h>

namespace {

// Calls the worker has no use for. Reading, listing, creating folders and files and writing
// them are left to Landlock, which limits them to the shared folders.
const int deniedCalls[] = {
    // No network and no other process to talk to, whatever the kernel's Landlock version.
    SCMP_SYS(socket),
    SCMP_SYS(socketpair),
    SCMP_SYS(connect),
    SCMP_SYS(bind),
    SCMP_SYS(listen),
    SCMP_SYS(accept),
    SCMP_SYS(accept4),
    // No programs, no looking into or steering other processes.
    SCMP_SYS(execve),
    SCMP_SYS(execveat),
    SCMP_SYS(ptrace),
    SCMP_SYS(process_vm_readv),
    SCMP_SYS(process_vm_writev),
    SCMP_SYS(pidfd_getfd),
    SCMP_SYS(kcmp),
    // Nothing of the system's own machinery.
    SCMP_SYS(bpf),
    SCMP_SYS(perf_event_open),
    SCMP_SYS(userfaultfd),
    SCMP_SYS(io_uring_setup),
    SCMP_SYS(keyctl),
    SCMP_SYS(add_key),
    SCMP_SYS(request_key),
    SCMP_SYS(unshare),
    SCMP_SYS(setns),
    SCMP_SYS(mount),
    SCMP_SYS(umount2),
    SCMP_SYS(pivot_root),
    SCMP_SYS(personality),
    SCMP_SYS(kexec_load),
    // What Landlock cannot refuse inside a shared folder: modes, owners, times, attributes and
    // links. The tools never change any of them.
    SCMP_SYS(chmod),
    SCMP_SYS(fchmod),
    SCMP_SYS(fchmodat),
    SCMP_SYS(chown),
    SCMP_SYS(fchown),
    SCMP_SYS(lchown),
    SCMP_SYS(fchownat),
    SCMP_SYS(utime),
    SCMP_SYS(utimes),
    SCMP_SYS(futimesat),
    SCMP_SYS(utimensat),
    SCMP_SYS(setxattr),
    SCMP_SYS(lsetxattr),
    SCMP_SYS(fsetxattr),
    SCMP_SYS(removexattr),
    SCMP_SYS(lremovexattr),
    SCMP_SYS(fremovexattr),
    SCMP_SYS(link),
    SCMP_SYS(linkat),
    SCMP_SYS(symlink),
    SCMP_SYS(symlinkat),
    SCMP_SYS(rename),
    SCMP_SYS(renameat),
    SCMP_SYS(renameat2),
    SCMP_SYS(unlink),
    SCMP_SYS(unlinkat),
    SCMP_SYS(rmdir),
    SCMP_SYS(mknod),
    SCMP_SYS(mknodat),
};

} // namespace

QString SyscallFilter::install() {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (!filter) {
        return QStringLiteral("the system call filter could not be set up");
    }
    for (const int call : deniedCalls) {
        // A call this architecture does not have needs no rule (libseccomp gives it a negative
        // number it may refuse).
        if (call >= 0) {
            seccomp_rule_add(filter, SCMP_ACT_ERRNO(EACCES), call, 0);
        }
    }
    const int status = seccomp_load(filter);
    seccomp_release(filter);
    if (status != 0) {
        return QStringLiteral("the system call filter could not be applied: ") +
               QString::fromLocal8Bit(std::strerror(-status));
    }
    return QString();
}
