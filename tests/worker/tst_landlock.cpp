#include "AccessPolicy.h"
#include "Confinement.h"
#include "FileService.h"
#include "Landlock.h"
#include "TempTree.h"
#include "ToolSandbox.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonObject>
#include <QTcpServer>
#include <QTest>
#include <QUuid>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// The restriction cannot be undone, so every case confines a forked child, never this process.
// The child does each operation with raw system calls and writes "name errno" lines (0 when the
// operation worked) to a pipe; the parent asserts on them.

namespace {

// ---- child side: plain system calls, no event loop ----

int errorOf(long result) {
    return result < 0 ? errno : 0;
}

void report(int out, const char* name, long value) {
    char line[128];
    const int length = std::snprintf(line, sizeof line, "%s %ld\n", name, value);
    if (length > 0 && ::write(out, line, static_cast<size_t>(length)) != length) {
        ::_exit(90);
    }
}

int readFile(const QByteArray& path) {
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char byte;
    const int error = errorOf(::read(fd, &byte, 1));
    ::close(fd);
    return error;
}

int listDir(const QByteArray& path) {
    const int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char entries[4096];
    const int error = errorOf(::syscall(SYS_getdents64, fd, entries, sizeof entries));
    ::close(fd);
    return error;
}

// Opens for writing with `flags` added, and writes `bytes` if the open worked.
int writeFile(const QByteArray& path, int flags, const char* bytes = "x") {
    const int fd = ::open(path.constData(), O_WRONLY | O_CLOEXEC | flags, 0600);
    if (fd < 0) {
        return errno;
    }
    const auto size = static_cast<ssize_t>(std::strlen(bytes));
    const int error = ::write(fd, bytes, static_cast<size_t>(size)) == size ? 0 : errno;
    ::close(fd);
    return error;
}

int ftruncateFile(const QByteArray& path, off_t length) {
    const int fd = ::open(path.constData(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int error = errorOf(::ftruncate(fd, length));
    ::close(fd);
    return error;
}

int socketCall(int domain, const std::function<int(int)>& call) {
    const int fd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    const int error = errorOf(call(fd));
    ::close(fd);
    return error;
}

sockaddr_in loopback(quint16 port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int connectTcp(quint16 port) {
    const sockaddr_in address = loopback(port);
    return socketCall(AF_INET, [&](int fd) {
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
}

int bindTcp() {
    const sockaddr_in address = loopback(0);
    return socketCall(AF_INET, [&](int fd) {
        return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
}

// Abstract names start with a NUL byte; `name` is the rest.
socklen_t unixAddress(sockaddr_un& address, const QByteArray& name, bool abstract) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const qsizetype offset = abstract ? 1 : 0;
    std::memcpy(address.sun_path + offset, name.constData(),
                static_cast<size_t>(qMin(name.size(), qsizetype(sizeof address.sun_path) - 2)));
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + name.size() +
                                  (abstract ? 0 : 1));
}

int connectUnix(const QByteArray& name, bool abstract) {
    sockaddr_un address;
    const socklen_t length = unixAddress(address, name, abstract);
    return socketCall(AF_UNIX, [&](int fd) {
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
    });
}

int bindUnix(const QByteArray& path) {
    sockaddr_un address;
    const socklen_t length = unixAddress(address, path, false);
    return socketCall(AF_UNIX, [&](int fd) {
        return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
    });
}

int run(const QByteArray& program) {
    char* const argv[] = {const_cast<char*>(program.constData()), nullptr};
    char* const envp[] = {nullptr};
    return errorOf(::execve(program.constData(), argv, envp));
}

// ---- parent side ----

struct ChildRun {
    bool timedOut = false;
    int status = -1;
    QByteArray reason;
    QHash<QByteArray, long> values;

    // -1 when the child never reported `name`, so a comparison with any errno fails.
    long operator[](const char* name) const { return values.value(name, -1); }
    bool finished() const {
        return !timedOut && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
               values.contains("done");
    }
};

using ChildBody = std::function<void(int out)>;

// Forks a child that (when `confine`) restricts itself to `folders`, then runs `body`. The wait
// is bounded only so a stuck child cannot hang the suite; it is far above any real run.
ChildRun runChild(const QList<Landlock::Folder>& folders, bool confine, const ChildBody& body) {
    ChildRun result;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        qFatal("pipe2: %s", std::strerror(errno));
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        qFatal("fork: %s", std::strerror(errno));
    }
    if (pid == 0) {
        ::close(fds[0]);
        if (confine) {
            const Landlock::Outcome outcome = Landlock::restrictSelf(folders);
            report(fds[1], "confined", outcome.confined ? 1 : 0);
            report(fds[1], "abi", outcome.abi);
            if (!outcome.confined) {
                const QByteArray line = "reason " + outcome.reason.toUtf8() + '\n';
                (void)!::write(fds[1], line.constData(), static_cast<size_t>(line.size()));
                ::_exit(0);
            }
        }
        body(fds[1]);
        report(fds[1], "done", 0);
        // _exit: no exit handlers (the leak checker among them) in a confined child.
        ::_exit(0);
    }
    ::close(fds[1]);

    const QDeadlineTimer deadline(60 * 1000);
    QByteArray output;
    for (;;) {
        pollfd poller{fds[0], POLLIN, 0};
        const int ready = ::poll(&poller, 1, static_cast<int>(deadline.remainingTime()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            result.timedOut = true;
            break;
        }
        char buffer[4096];
        const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        output.append(buffer, got);
    }
    ::close(fds[0]);

    while (::waitpid(pid, &result.status, WNOHANG) == 0) {
        if (result.timedOut || deadline.hasExpired()) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &result.status, 0);
            break;
        }
        ::usleep(10 * 1000);
    }

    for (const QByteArray& line : output.split('\n')) {
        const qsizetype space = line.indexOf(' ');
        if (space < 0) {
            continue;
        }
        const QByteArray name = line.left(space);
        if (name == "reason") {
            result.reason = line.mid(space + 1);
        } else {
            result.values.insert(name, line.mid(space + 1).toLong());
        }
    }
    return result;
}

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

} // namespace

class LandlockTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TempTree> m_tree;
    QByteArray m_readOnly;
    QByteArray m_writable;
    QByteArray m_outside;
    QTcpServer m_tcp;
    int m_abstractListener = -1;
    QByteArray m_abstractName;

    QList<Landlock::Folder> folders() const {
        return {Landlock::Folder{m_readOnly, false}, Landlock::Folder{m_writable, true}};
    }

    static QByteArray local(const QString& path) { return QFile::encodeName(path); }
    static QByteArray in(const QByteArray& folder, const char* name) { return folder + '/' + name; }

    ChildRun runConfined(const ChildBody& body) const { return runConfined(folders(), body); }
    static ChildRun runConfined(const QList<Landlock::Folder>& list, const ChildBody& body) {
        return runChild(list, true, body);
    }

private slots:
    void initTestCase() {
        QVERIFY(m_tcp.listen(QHostAddress::LocalHost));

        m_abstractName = "quillmar-landlock-test-" + QByteArray::number(::getpid());
        m_abstractListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        QVERIFY(m_abstractListener >= 0);
        sockaddr_un address;
        const socklen_t length = unixAddress(address, m_abstractName, true);
        QCOMPARE(::bind(m_abstractListener, reinterpret_cast<const sockaddr*>(&address), length),
                 0);
        QCOMPARE(::listen(m_abstractListener, 8), 0);
    }

    void cleanupTestCase() { ::close(m_abstractListener); }

    // Every case starts from fresh folders: one read-only, one writable, and a sibling that is
    // not shared.
    void init() {
        const QByteArray test = QTest::currentTestFunction();
        if (Landlock::abi() == 0 && test != "unconfinedChildReachesEverything" &&
            test != "withoutLandlockTheReasonIsGiven") {
            QSKIP("This kernel has no Landlock, or it is turned off at boot.");
        }
        m_tree = std::make_unique<TempTree>();
        m_tree->file(QStringLiteral("readonly/notes.txt"), "read me");
        m_tree->file(QStringLiteral("readonly/sub/deep.txt"), "deep");
        m_tree->file(QStringLiteral("writable/existing.txt"), "0123456789");
        m_tree->file(QStringLiteral("writable/keep.txt"), "keep");
        m_tree->dir(QStringLiteral("writable/emptydir"));
        m_tree->file(QStringLiteral("outside/secret.txt"), "secret");
        m_readOnly = local(m_tree->path(QStringLiteral("readonly")));
        m_writable = local(m_tree->path(QStringLiteral("writable")));
        m_outside = local(m_tree->path(QStringLiteral("outside")));
    }

    void cleanup() {
        m_tree.reset();
        // This process itself must never have been confined.
        QCOMPARE(readFile("/etc/hostname"), 0);
    }

    // Skipped by init() where the kernel has none.
    void abiIsAvailable() {
        const int abi = Landlock::abi();
        QVERIFY(abi >= 1);
        QCOMPARE(Landlock::abi(), abi);
    }

    void withoutLandlockTheReasonIsGiven() {
        if (Landlock::abi() != 0) {
            QSKIP("Only on a kernel without Landlock.");
        }
        const ChildRun child = runConfined([](int) {});
        QCOMPARE(child["confined"], 0);
        QCOMPARE(child["abi"], 0);
        QVERIFY(!child.reason.isEmpty());
    }

    // The harness itself: without the restriction every probe below works, so the refusals in
    // the other cases come from Landlock and not from the set-up.
    void unconfinedChildReachesEverything() {
        const quint16 port = m_tcp.serverPort();
        const ChildRun child = runChild(folders(), false, [&](int out) {
            report(out, "readOutside", readFile(in(m_outside, "secret.txt")));
            report(out, "listOutside", listDir(m_outside));
            report(out, "hostname", readFile("/etc/hostname"));
            report(out, "unlink", errorOf(::unlink(in(m_writable, "keep.txt").constData())));
            report(out, "connect", connectTcp(port));
            report(out, "abstract", connectUnix(m_abstractName, true));
            report(out, "signal", errorOf(::kill(::getppid(), 0)));
        });
        QVERIFY(child.finished());
        QCOMPARE(child["readOutside"], 0);
        QCOMPARE(child["listOutside"], 0);
        QCOMPARE(child["hostname"], 0);
        QCOMPARE(child["unlink"], 0);
        QCOMPARE(child["connect"], 0);
        QCOMPARE(child["abstract"], 0);
        QCOMPARE(child["signal"], 0);
    }

    void readOnlyFolderCanBeReadAndListed() {
        const ChildRun child = runConfined([&](int out) {
            report(out, "read", readFile(in(m_readOnly, "notes.txt")));
            report(out, "readDeep", readFile(in(m_readOnly, "sub/deep.txt")));
            report(out, "list", listDir(m_readOnly));
            report(out, "listSub", listDir(in(m_readOnly, "sub")));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["abi"], long(Landlock::abi()));
        QCOMPARE(child["read"], 0);
        QCOMPARE(child["readDeep"], 0);
        QCOMPARE(child["list"], 0);
        QCOMPARE(child["listSub"], 0);
    }

    void readOnlyFolderCannotBeChanged() {
        // Before ABI 3, truncate(2) and a read-only open with O_TRUNC are beyond Landlock and
        // would empty the file, so they are only tried where the kernel can refuse them.
        const bool truncation = Landlock::abi() >= 3;
        const ChildRun child = runConfined([&](int out) {
            report(out, "write", writeFile(in(m_readOnly, "notes.txt"), 0));
            report(out, "append", writeFile(in(m_readOnly, "notes.txt"), O_APPEND));
            report(out, "create", writeFile(in(m_readOnly, "new.txt"), O_CREAT | O_EXCL));
            report(out, "mkdir", errorOf(::mkdir(in(m_readOnly, "newdir").constData(), 0700)));
            report(out, "unlink", errorOf(::unlink(in(m_readOnly, "notes.txt").constData())));
            if (truncation) {
                report(out, "truncatePath",
                       errorOf(::truncate(in(m_readOnly, "notes.txt").constData(), 0)));
                report(out, "readTrunc",
                       errorOf(::open(in(m_readOnly, "notes.txt").constData(),
                                      O_RDONLY | O_TRUNC | O_CLOEXEC)));
            }
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["write"], EACCES);
        QCOMPARE(child["append"], EACCES);
        QCOMPARE(child["create"], EACCES);
        QCOMPARE(child["mkdir"], EACCES);
        QCOMPARE(child["unlink"], EACCES);
        if (truncation) {
            QCOMPARE(child["truncatePath"], EACCES);
            QCOMPARE(child["readTrunc"], EACCES);
        }
        QCOMPARE(contents(m_tree->path(QStringLiteral("readonly/notes.txt"))),
                 QByteArray("read me"));
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("readonly/new.txt"))));
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("readonly/newdir"))));
    }

    // The worker's own set-up: a folder shared read-only gets no write rights from the kernel,
    // so even a write the companion's checks were wrongly told to allow is refused.
    void readOnlySharedFolderRefusesTheWorkersWrites() {
        const QList<SharedFolder> folders{
            SharedFolder{QUuid::createUuid(), QStringLiteral("ro"),
                         m_tree->path(QStringLiteral("readonly")), std::nullopt, true},
            SharedFolder{QUuid::createUuid(), QStringLiteral("rw"),
                         m_tree->path(QStringLiteral("writable")), std::nullopt, false}};
        const auto write = [](const AccessPolicy& policy, const QString& path) {
            return FileService::execute(
                       QStringLiteral("local_write_file"),
                       {{QStringLiteral("path"), path}, {QStringLiteral("content"), u"changed"_qs}},
                       policy, [](const QString&, qint64) { return true; })
                .toObject()
                .value(QStringLiteral("error"))
                .toString();
        };
        const ChildRun child = runChild({}, false, [&](int out) {
            const Confinement confinement = ToolSandbox::enter(folders, true);
            report(out, "kernel", confinement.kind() == Confinement::Kind::Kernel ? 1 : 0);
            // The policy as the worker has it refuses with the user's words...
            report(out, "policyRefuses",
                   write(AccessPolicy(folders, {}), QStringLiteral("ro/notes.txt")) ==
                           u"The folder 'ro' is shared read-only."
                       ? 1
                       : 0);
            // ...and one that believes every folder writable meets the kernel's refusal.
            QList<SharedFolder> believed = folders;
            for (SharedFolder& folder : believed) {
                folder.readOnly = false;
            }
            const AccessPolicy fooled(believed, {});
            report(out, "existingRefused",
                   write(fooled, QStringLiteral("ro/notes.txt")).contains(u"ermission denied") ? 1
                                                                                               : 0);
            report(out, "newRefused",
                   write(fooled, QStringLiteral("ro/new.txt")).contains(u"ermission denied") ? 1
                                                                                             : 0);
            report(out, "writableTakes",
                   write(fooled, QStringLiteral("rw/existing.txt")).isEmpty() ? 1 : 0);
        });
        QVERIFY(child.finished());
        QCOMPARE(child["kernel"], 1);
        QCOMPARE(child["policyRefuses"], 1);
        QCOMPARE(child["existingRefused"], 1);
        QCOMPARE(child["newRefused"], 1);
        QCOMPARE(child["writableTakes"], 1);
        QCOMPARE(contents(m_tree->path(QStringLiteral("readonly/notes.txt"))),
                 QByteArray("read me"));
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("readonly/new.txt"))));
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/existing.txt"))),
                 QByteArray("changed"));
    }

    void writableFolderTakesNewAndChangedFiles() {
        const ChildRun child = runConfined([&](int out) {
            report(out, "create", writeFile(in(m_writable, "new.txt"), O_CREAT | O_EXCL, "new"));
            report(out, "overwrite", writeFile(in(m_writable, "keep.txt"), O_TRUNC, "kept"));
            report(out, "mkdir", errorOf(::mkdir(in(m_writable, "made").constData(), 0700)));
            report(out, "createDeep",
                   writeFile(in(m_writable, "made/deep.txt"), O_CREAT | O_EXCL, "deep"));
            report(out, "ftruncate", ftruncateFile(in(m_writable, "existing.txt"), 4));
            report(out, "truncatePath",
                   errorOf(::truncate(in(m_writable, "existing.txt").constData(), 2)));
            report(out, "read", readFile(in(m_writable, "new.txt")));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["create"], 0);
        QCOMPARE(child["overwrite"], 0);
        QCOMPARE(child["mkdir"], 0);
        QCOMPARE(child["createDeep"], 0);
        QCOMPARE(child["ftruncate"], 0);
        QCOMPARE(child["truncatePath"], 0);
        QCOMPARE(child["read"], 0);
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/new.txt"))), QByteArray("new"));
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/keep.txt"))), QByteArray("kept"));
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/made/deep.txt"))),
                 QByteArray("deep"));
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/existing.txt"))), QByteArray("01"));
    }

    void writableFolderRefusesRemovalLinksAndSpecialFiles() {
        const ChildRun child = runConfined([&](int out) {
            report(out, "unlink", errorOf(::unlink(in(m_writable, "keep.txt").constData())));
            report(out, "rmdir", errorOf(::rmdir(in(m_writable, "emptydir").constData())));
            report(out, "rename",
                   errorOf(::rename(in(m_writable, "keep.txt").constData(),
                                    in(m_writable, "moved.txt").constData())));
            report(out, "symlink",
                   errorOf(::symlink("keep.txt", in(m_writable, "link").constData())));
            report(out, "fifo", errorOf(::mkfifo(in(m_writable, "fifo").constData(), 0600)));
            report(out, "socket", bindUnix(in(m_writable, "sock")));
            report(out, "device",
                   errorOf(
                       ::mknod(in(m_writable, "null").constData(), S_IFCHR | 0600, makedev(1, 3))));
            report(out, "linkIn",
                   errorOf(::link(in(m_outside, "secret.txt").constData(),
                                  in(m_writable, "stolen.txt").constData())));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["unlink"], EACCES);
        QCOMPARE(child["rmdir"], EACCES);
        QCOMPARE(child["rename"], EACCES);
        QCOMPARE(child["symlink"], EACCES);
        QCOMPARE(child["fifo"], EACCES);
        QCOMPARE(child["socket"], EACCES);
        QCOMPARE(child["device"], EACCES);
        // Making a regular file is allowed here, but a link into the folder would reparent a file
        // from outside: refused as a cross-hierarchy move.
        QCOMPARE(child["linkIn"], EXDEV);
        QCOMPARE(contents(m_tree->path(QStringLiteral("writable/keep.txt"))), QByteArray("keep"));
        QVERIFY(QFile::exists(m_tree->path(QStringLiteral("writable/emptydir"))));
        for (const char* name : {"moved.txt", "link", "fifo", "sock", "null", "stolen.txt"}) {
            const QFileInfo entry(QFile::decodeName(in(m_writable, name)));
            QVERIFY2(!entry.exists() && !entry.isSymLink(), name);
        }
    }

    void outsideTheFoldersIsOutOfReach() {
        const QByteArray root = local(m_tree->path());
        const ChildRun child = runConfined([&](int out) {
            report(out, "read", readFile(in(m_outside, "secret.txt")));
            report(out, "list", listDir(m_outside));
            report(out, "write", writeFile(in(m_outside, "secret.txt"), 0));
            report(out, "create", writeFile(in(m_outside, "new.txt"), O_CREAT | O_EXCL));
            report(out, "mkdir", errorOf(::mkdir(in(m_outside, "newdir").constData(), 0700)));
            report(out, "listParent", listDir(root));
            report(out, "listRoot", listDir("/"));
            report(out, "hostname", readFile("/etc/hostname"));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["read"], EACCES);
        QCOMPARE(child["list"], EACCES);
        QCOMPARE(child["write"], EACCES);
        QCOMPARE(child["create"], EACCES);
        QCOMPARE(child["mkdir"], EACCES);
        QCOMPARE(child["listParent"], EACCES);
        QCOMPARE(child["listRoot"], EACCES);
        QCOMPARE(child["hostname"], EACCES);
        QCOMPARE(contents(m_tree->path(QStringLiteral("outside/secret.txt"))),
                 QByteArray("secret"));
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("outside/new.txt"))));
    }

    void noFoldersLeavesNoFiles() {
        const ChildRun child = runConfined({}, [&](int out) {
            report(out, "read", readFile(in(m_readOnly, "notes.txt")));
            report(out, "hostname", readFile("/etc/hostname"));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["read"], EACCES);
        QCOMPARE(child["hostname"], EACCES);
    }

    void linkOutOfAFolderLeadsNowhere() {
        m_tree->symlink(QStringLiteral("readonly/escape.txt"),
                        m_tree->path(QStringLiteral("outside/secret.txt")));
        m_tree->symlink(QStringLiteral("readonly/escapedir"),
                        m_tree->path(QStringLiteral("outside")));
        m_tree->symlink(QStringLiteral("writable/escape.txt"),
                        m_tree->path(QStringLiteral("outside/secret.txt")));
        const ChildRun child = runConfined([&](int out) {
            report(out, "read", readFile(in(m_readOnly, "escape.txt")));
            report(out, "list", listDir(in(m_readOnly, "escapedir")));
            report(out, "readThroughDir", readFile(in(m_readOnly, "escapedir/secret.txt")));
            report(out, "write", writeFile(in(m_writable, "escape.txt"), 0));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["read"], EACCES);
        QCOMPARE(child["list"], EACCES);
        QCOMPARE(child["readThroughDir"], EACCES);
        QCOMPARE(child["write"], EACCES);
        QCOMPARE(contents(m_tree->path(QStringLiteral("outside/secret.txt"))),
                 QByteArray("secret"));
    }

    // A link in the folder's own path is followed: the rule is for the directory it names.
    void folderGivenThroughALinkIsShared() {
        const QByteArray viaLink = local(m_tree->symlink(QStringLiteral("outside/alias"),
                                                         m_tree->path(QStringLiteral("readonly"))));
        const ChildRun child = runConfined({Landlock::Folder{viaLink, false}}, [&](int out) {
            report(out, "read", readFile(in(m_readOnly, "notes.txt")));
            report(out, "readOutside", readFile(in(m_outside, "secret.txt")));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["read"], 0);
        QCOMPARE(child["readOutside"], EACCES);
    }

    void programsCannotBeRun() {
        const QString copy = m_tree->path(QStringLiteral("writable/true"));
        QVERIFY(QFile::copy(QStringLiteral("/bin/true"), copy));
        QVERIFY(QFile::setPermissions(copy, QFile::ReadOwner | QFile::ExeOwner));
        const QByteArray inFolder = local(copy);
        const ChildRun child = runConfined([&](int out) {
            report(out, "system", run("/bin/true"));
            report(out, "inFolder", run(inFolder));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["system"], EACCES);
        QCOMPARE(child["inFolder"], EACCES);
    }

    void tcpIsClosed() {
        if (Landlock::abi() < 4) {
            QSKIP("Landlock below ABI 4 cannot restrict TCP.");
        }
        const quint16 port = m_tcp.serverPort();
        const ChildRun child = runConfined([&](int out) {
            report(out, "connect", connectTcp(port));
            report(out, "bind", bindTcp());
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["connect"], EACCES);
        QCOMPARE(child["bind"], EACCES);
    }

    void signalsAndAbstractSocketsStayInside() {
        if (Landlock::abi() < 6) {
            QSKIP("Landlock below ABI 6 cannot scope signals and abstract sockets.");
        }
        const ChildRun child = runConfined([&](int out) {
            report(out, "abstract", connectUnix(m_abstractName, true));
            report(out, "signal", errorOf(::kill(::getppid(), 0)));
            report(out, "signalSelf", errorOf(::kill(::getpid(), 0)));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["abstract"], EPERM);
        QCOMPARE(child["signal"], EPERM);
        QCOMPARE(child["signalSelf"], 0);
    }

    // Whatever the worker starts inherits the restriction.
    void childrenOfAConfinedProcessAreConfined() {
        const ChildRun child = runConfined([&](int out) {
            const pid_t grandchild = ::fork();
            if (grandchild == 0) {
                report(out, "grandchildRead", readFile(in(m_readOnly, "notes.txt")));
                report(out, "grandchildOutside", readFile(in(m_outside, "secret.txt")));
                ::_exit(0);
            }
            int status = 0;
            report(out, "waited",
                   grandchild > 0 && ::waitpid(grandchild, &status, 0) == grandchild ? 0 : errno);
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["waited"], 0);
        QCOMPARE(child["grandchildRead"], 0);
        QCOMPARE(child["grandchildOutside"], EACCES);
    }

    void vanishedFolderIsSkipped() {
        const QByteArray gone = local(m_tree->dir(QStringLiteral("gone")));
        QVERIFY(QDir(QFile::decodeName(gone)).removeRecursively());
        const QList<Landlock::Folder> list{Landlock::Folder{gone, true},
                                           Landlock::Folder{m_writable, true}};
        const ChildRun child = runConfined(list, [&](int out) {
            report(out, "create", writeFile(in(m_writable, "new.txt"), O_CREAT | O_EXCL));
            report(out, "recreate", errorOf(::mkdir(gone.constData(), 0700)));
            report(out, "readOnly", readFile(in(m_readOnly, "notes.txt")));
        });
        QVERIFY2(child["confined"] == 1, child.reason.constData());
        QVERIFY(child.finished());
        QCOMPARE(child["create"], 0);
        QCOMPARE(child["recreate"], EACCES);
        QCOMPARE(child["readOnly"], EACCES);
        QVERIFY(!QFile::exists(QFile::decodeName(gone)));
    }
};

QTEST_GUILESS_MAIN(LandlockTest)
#include "tst_landlock.moc"
