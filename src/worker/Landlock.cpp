#include "Landlock.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// Debian 12's kernel headers stop at ABI 2; these values are fixed by the kernel's user API.
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14) // ABI 3
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15) // ABI 5
#endif
#ifndef LANDLOCK_ACCESS_NET_BIND_TCP
#define LANDLOCK_ACCESS_NET_BIND_TCP (1ULL << 0) // ABI 4
#endif
#ifndef LANDLOCK_ACCESS_NET_CONNECT_TCP
#define LANDLOCK_ACCESS_NET_CONNECT_TCP (1ULL << 1) // ABI 4
#endif
#ifndef LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET
#define LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET (1ULL << 0) // ABI 6
#endif
#ifndef LANDLOCK_SCOPE_SIGNAL
#define LANDLOCK_SCOPE_SIGNAL (1ULL << 1) // ABI 6
#endif

namespace {

// The header's landlock_ruleset_attr has only the first field. The kernel reads as many bytes as
// we say, so the size passed grows with the ABI: an older kernel rejects a larger struct.
struct RulesetAttr {
    std::uint64_t handledAccessFs;
    std::uint64_t handledAccessNet; // ABI 4
    std::uint64_t scoped;           // ABI 6
};

std::size_t rulesetAttrSize(int abi) {
    if (abi >= 6) {
        return sizeof(RulesetAttr);
    }
    if (abi >= 4) {
        return offsetof(RulesetAttr, scoped);
    }
    return offsetof(RulesetAttr, handledAccessNet);
}

int createRuleset(const RulesetAttr* attr, std::size_t size, std::uint32_t flags) {
    return static_cast<int>(::syscall(SYS_landlock_create_ruleset, attr, size, flags));
}

int addPathRule(int rulesetFd, std::uint64_t allowed, int parentFd) {
    const landlock_path_beneath_attr rule{allowed, parentFd};
    return static_cast<int>(
        ::syscall(SYS_landlock_add_rule, rulesetFd, LANDLOCK_RULE_PATH_BENEATH, &rule, 0U));
}

int restrictSelfWith(int rulesetFd) {
    return static_cast<int>(::syscall(SYS_landlock_restrict_self, rulesetFd, 0U));
}

// Every file-system right the kernel knows is handled, so anything not granted below is denied,
// including rights the tools never use.
std::uint64_t handledFsRights(int abi) {
    std::uint64_t rights =
        LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE |
        LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR |
        LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR |
        LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_SOCK |
        LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
    if (abi >= 2) {
        rights |= LANDLOCK_ACCESS_FS_REFER;
    }
    // Before ABI 3 the kernel cannot refuse truncate(2) or an O_TRUNC open, even for reading:
    // there, only the worker's own checks keep a read-only folder's files from being emptied.
    if (abi >= 3) {
        rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
    }
    if (abi >= 5) {
        rights |= LANDLOCK_ACCESS_FS_IOCTL_DEV;
    }
    return rights;
}

// What the tools need in a shared folder and nothing more. Reading and listing for every folder;
// writable folders also open files for writing, create files and folders, and overwrite (which
// truncates; without TRUNCATE an O_TRUNC open fails). Never granted: EXECUTE (the worker runs
// no programs), REMOVE_* (the tools never delete, and a rename needs removal), MAKE_SYM (a link
// planted here would lead the user's own programs out of the folder), MAKE_FIFO/SOCK/CHAR/BLOCK
// (no special files), REFER (nothing moves between directories) and IOCTL_DEV (no devices).
std::uint64_t folderRights(const Landlock::Folder& folder, int abi) {
    std::uint64_t rights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
    if (folder.writable) {
        rights |= LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG |
                  LANDLOCK_ACCESS_FS_MAKE_DIR;
        if (abi >= 3) {
            rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
        }
    }
    return rights;
}

Landlock::Outcome notConfined(int abi, const QString& reason) {
    return Landlock::Outcome{false, abi, reason};
}

Landlock::Outcome callFailed(int abi, const char* call, int error) {
    return notConfined(
        abi, QStringLiteral("%1 failed: %2.")
                 .arg(QString::fromLatin1(call), QString::fromLocal8Bit(std::strerror(error))));
}

// Adds a rule per folder to the ruleset, then enforces it on the calling thread.
Landlock::Outcome apply(int rulesetFd, const QList<Landlock::Folder>& folders, int abi) {
    for (const Landlock::Folder& folder : folders) {
        // The folder's own path may go through links (as the user chose it); the rule is for the
        // directory it resolves to, and everything beneath is checked against that.
        const int folderFd = ::open(folder.path.constData(), O_PATH | O_CLOEXEC | O_DIRECTORY);
        if (folderFd < 0) {
            // Gone or unreachable: leaving it out only denies more, and the tools report it as
            // not found.
            continue;
        }
        const int added = addPathRule(rulesetFd, folderRights(folder, abi), folderFd);
        const int error = errno;
        ::close(folderFd);
        if (added != 0) {
            return callFailed(abi, "landlock_add_rule", error);
        }
    }

    // Required for an unprivileged restrict_self, and keeps set-user-ID programs from regaining
    // rights. Set only now so a failure above leaves the process as it was.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return callFailed(abi, "prctl(PR_SET_NO_NEW_PRIVS)", errno);
    }
    if (restrictSelfWith(rulesetFd) != 0) {
        return callFailed(abi, "landlock_restrict_self", errno);
    }
    return Landlock::Outcome{true, abi, QString()};
}

} // namespace

int Landlock::abi() {
    const int version = createRuleset(nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    // ENOSYS: not built into the kernel; EOPNOTSUPP: built in but disabled at boot.
    return version < 0 ? 0 : version;
}

Landlock::Outcome Landlock::restrictSelf(const QList<Folder>& folders) {
    const int version = createRuleset(nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 0) {
        if (errno == EOPNOTSUPP) {
            return notConfined(0, QStringLiteral("Landlock is turned off at boot on this system."));
        }
        if (errno == ENOSYS) {
            return notConfined(0, QStringLiteral("This kernel has no Landlock."));
        }
        return callFailed(0, "landlock_create_ruleset", errno);
    }

    RulesetAttr attr{handledFsRights(version), 0, 0};
    if (version >= 4) {
        // Handled with no port rule: the worker can neither listen nor connect over TCP.
        attr.handledAccessNet = LANDLOCK_ACCESS_NET_BIND_TCP | LANDLOCK_ACCESS_NET_CONNECT_TCP;
    }
    if (version >= 6) {
        // No signals to, and no abstract sockets of, processes outside the worker.
        attr.scoped = LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET | LANDLOCK_SCOPE_SIGNAL;
    }
    const int rulesetFd = createRuleset(&attr, rulesetAttrSize(version), 0);
    if (rulesetFd < 0) {
        return callFailed(version, "landlock_create_ruleset", errno);
    }
    const Outcome outcome = apply(rulesetFd, folders, version);
    ::close(rulesetFd); // the thread keeps the enforced domain, not the descriptor
    return outcome;
}
