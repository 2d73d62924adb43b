#include "ShellTestMain.h"
#include "SingleInstance.h"
#include "TempTree.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLockFile>
#include <QProcess>
#include <QTest>

#include <atomic>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// A listening Unix socket at `path`, made without Qt (and so usable from any thread); -1 on
// failure.
int listenOn(const QString& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray encoded = QFile::encodeName(path);
    std::memcpy(address.sun_path, encoded.constData(),
                std::min<size_t>(size_t(encoded.size()), sizeof(address.sun_path) - 1));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 4) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Leaves a socket file behind with nobody listening on it, as a crash does.
bool leaveStaleSocket(const QString& path) {
    const int fd = listenOn(path);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return QFile::exists(path);
}

// A process started by a test, killed at the end of it whatever happens.
struct Child {
    QProcess process;
    ~Child() {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    // Waits for one more output line, up to `ms`; the line without its line feed.
    QString readLine(int ms = 10000) {
        QElapsedTimer clock;
        clock.start();
        while (!process.canReadLine() && clock.elapsed() < ms) {
            process.waitForReadyRead(100);
        }
        return QString::fromUtf8(process.readLine()).trimmed();
    }
};

QProcessEnvironment probeEnvironment(const TempTree& tree) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), tree.path(QStringLiteral("runtime")));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), tree.path(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), tree.path(QStringLiteral("data")));
    env.insert(QStringLiteral("HOME"), tree.path(QStringLiteral("home")));
    env.insert(QStringLiteral("QUILLMAR_API"), QStringLiteral("http://127.0.0.1:1"));
    env.remove(QStringLiteral("QUILLMAR_SHOW_ONBOARDING"));
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    return env;
}

QString privateFolder(const TempTree& tree, const QString& name) {
    const QString path = tree.dir(name);
    tree.chmod(name, 0700);
    return path;
}

} // namespace

class SingleInstanceTest : public QObject {
    Q_OBJECT

private slots:
    void theFirstRunsAndTheSecondHandsOver() {
        // The first runs in a process of its own, so that it answers while this one waits.
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        Child first;
        first.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE), {dir, QStringLiteral("1000")});
        QCOMPARE(first.readLine(), QStringLiteral("primary"));
        const SingleInstance paths(dir);
        QVERIFY(QFile::exists(paths.socketPath()));
        QVERIFY(QFile::exists(paths.lockPath()));
        QVERIFY(paths.socketPath().startsWith(dir + QStringLiteral("/app.quillmar.companion")));

        SingleInstance second(dir);
        QCOMPARE(second.start(1s), SingleInstance::Role::HandedOver);
        QCOMPARE(first.readLine(), QStringLiteral("reopen"));

        SingleInstance third(dir);
        QCOMPARE(third.start(1s), SingleInstance::Role::HandedOver);
        QCOMPARE(first.readLine(), QStringLiteral("reopen"));
    }

    void theSocketIsTheUsersOnly() {
        TempTree tree;
        SingleInstance first(privateFolder(tree, QStringLiteral("runtime")));
        QCOMPARE(first.start(1s), SingleInstance::Role::Primary);
        const QFile::Permissions permissions = QFile::permissions(first.socketPath());
        QVERIFY(permissions & QFile::WriteOwner);
        QVERIFY(!(permissions & (QFile::WriteGroup | QFile::WriteOther)));
    }

    void theDefaultFolderIsTheUsersRuntimeFolder() {
        QCOMPARE(SingleInstance::defaultDirectory(), qEnvironmentVariable("XDG_RUNTIME_DIR"));
    }

    void aSocketLeftByACrashIsReplaced() {
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        QVERIFY(leaveStaleSocket(SingleInstance(dir).socketPath()));
        Child first;
        first.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE), {dir, QStringLiteral("1000")});
        QCOMPARE(first.readLine(), QStringLiteral("primary"));
        SingleInstance second(dir);
        QCOMPARE(second.start(1s), SingleInstance::Role::HandedOver);
        QCOMPARE(first.readLine(), QStringLiteral("reopen"));
    }

    void aCrashedInstanceIsTakenOver() {
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        {
            Child crashed;
            crashed.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE),
                                  {dir, QStringLiteral("1000")});
            QCOMPARE(crashed.readLine(), QStringLiteral("primary"));
            ::kill(pid_t(crashed.process.processId()), SIGKILL);
            QVERIFY(crashed.process.waitForFinished(5000));
        }
        SingleInstance probe(dir);
        QVERIFY(QFile::exists(probe.lockPath()));
        QVERIFY(QFile::exists(probe.socketPath()));

        Child next;
        next.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE), {dir, QStringLiteral("2000")});
        QCOMPARE(next.readLine(), QStringLiteral("primary"));
        QCOMPARE(probe.start(1s), SingleInstance::Role::HandedOver);
        QCOMPARE(next.readLine(), QStringLiteral("reopen"));
    }

    void twoUsersDoNotMeet() {
        // Each user has a runtime folder of their own.
        TempTree tree;
        SingleInstance alice(privateFolder(tree, QStringLiteral("alice")));
        SingleInstance bob(privateFolder(tree, QStringLiteral("bob")));
        QCOMPARE(alice.start(1s), SingleInstance::Role::Primary);
        QCOMPARE(bob.start(1s), SingleInstance::Role::Primary);
    }

    void aHolderThatNeverListensIsGivenUpOn() {
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        SingleInstance late(dir);
        QLockFile held(late.lockPath());
        QVERIFY(held.tryLock(0));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(late.start(300ms), SingleInstance::Role::Unanswered);
        QVERIFY2(clock.elapsed() < 3000, "waited far longer than its patience");
    }

    void aStartingHolderIsWaitedFor() {
        // The running instance has taken the lock but begins listening only a moment later;
        // it takes the line and closes without answering, as companions did before answers.
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        SingleInstance late(dir);
        QLockFile held(late.lockPath());
        QVERIFY(held.tryLock(0));
        const QString socketPath = late.socketPath();
        std::atomic<bool> listened{false};
        QByteArray received;
        std::thread starting([&listened, &received, socketPath] {
            std::this_thread::sleep_for(300ms);
            const int listener = listenOn(socketPath);
            listened = listener >= 0;
            const int connection = listener >= 0 ? ::accept(listener, nullptr, nullptr) : -1;
            if (connection >= 0) {
                char buffer[16] = {};
                const ssize_t got = ::read(connection, buffer, sizeof(buffer));
                received = QByteArray(buffer, int(std::max<ssize_t>(got, 0)));
                ::close(connection);
            }
            if (listener >= 0) {
                ::close(listener);
            }
        });
        const SingleInstance::Role role = late.start(5s);
        starting.join();
        QVERIFY(listened);
        QCOMPARE(role, SingleInstance::Role::HandedOver);
        // What arrived is the one line a later launch sends.
        QCOMPARE(received, SingleInstance::reopenMessage());
    }

    void aHolderThatListensButNeverAnswersIsGivenUpOn() {
        // Stopped or hung: its socket takes the connection, and nothing comes back. Silence is
        // not an answer; the launch waits out its patience and does not run.
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        SingleInstance late(dir);
        QLockFile held(late.lockPath());
        QVERIFY(held.tryLock(0));
        const int listener = listenOn(late.socketPath());
        QVERIFY(listener >= 0);
        QElapsedTimer clock;
        clock.start();
        const SingleInstance::Role role = late.start(700ms);
        ::close(listener);
        QCOMPARE(role, SingleInstance::Role::Unanswered);
        QVERIFY2(clock.elapsed() < 5000, "waited far longer than its patience");
        QCOMPARE(SingleInstance::holder(dir), qint64(QCoreApplication::applicationPid()));
    }

    void noHolderOnceTheLockIsGone() {
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        QCOMPARE(SingleInstance::holder(dir), qint64(0));
        {
            SingleInstance first(dir);
            QCOMPARE(first.start(1s), SingleInstance::Role::Primary);
            QCOMPARE(SingleInstance::holder(dir), qint64(QCoreApplication::applicationPid()));
        }
        QCOMPARE(SingleInstance::holder(dir), qint64(0));
    }

    void aSecondProcessHandsOverAndExits() {
        TempTree tree;
        const QString dir = privateFolder(tree, QStringLiteral("runtime"));
        Child first;
        first.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE), {dir, QStringLiteral("1000")});
        QCOMPARE(first.readLine(), QStringLiteral("primary"));
        Child second;
        second.process.start(QStringLiteral(QUILLMAR_INSTANCE_PROBE),
                             {dir, QStringLiteral("5000")});
        QVERIFY(second.process.waitForFinished(10000));
        QCOMPARE(second.readLine(), QStringLiteral("handed over"));
        QCOMPARE(second.process.exitCode(), 0);
        QCOMPARE(first.readLine(), QStringLiteral("reopen"));
    }

    void anUnusableFolderRunsAlone() {
        TempTree tree;
        SingleInstance lonely(tree.path(QStringLiteral("missing")));
        QCOMPARE(lonely.start(200ms), SingleInstance::Role::Alone);
        SingleInstance empty{QString()};
        QCOMPARE(empty.start(200ms), SingleInstance::Role::Alone);
    }

    void launchingTheDesktopAppAgainShowsTheWindow() {
        TempTree tree;
        privateFolder(tree, QStringLiteral("runtime"));
        tree.dir(QStringLiteral("config"));
        tree.dir(QStringLiteral("data"));
        tree.dir(QStringLiteral("home"));

        Child first;
        first.process.setProcessEnvironment(probeEnvironment(tree));
        first.process.start(QStringLiteral(QUILLMAR_DESKTOP_PROBE), {});
        // Not paired and no tray here: the window comes up at launch.
        QCOMPARE(first.readLine(), QStringLiteral("window shown"));

        Child second;
        second.process.setProcessEnvironment(probeEnvironment(tree));
        second.process.start(QStringLiteral(QUILLMAR_DESKTOP_PROBE), {});
        QVERIFY(second.process.waitForFinished(15000));
        QCOMPARE(second.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.process.exitCode(), 0);
        QCOMPARE(second.process.readAllStandardOutput(), QByteArray());

        QCOMPARE(first.readLine(), QStringLiteral("window shown"));
        QCOMPARE(first.process.state(), QProcess::Running);

        // Closing the window is not quitting: still running, and a third launch still reaches it.
        Child third;
        third.process.setProcessEnvironment(probeEnvironment(tree));
        third.process.start(QStringLiteral(QUILLMAR_DESKTOP_PROBE), {});
        QVERIFY(third.process.waitForFinished(15000));
        QCOMPARE(third.process.exitCode(), 0);
        QCOMPARE(first.readLine(), QStringLiteral("window shown"));
    }
};

QUILLMAR_SHELL_TEST_MAIN(SingleInstanceTest)
#include "tst_singleinstance.moc"
