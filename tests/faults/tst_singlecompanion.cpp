// One companion per account, end to end: quillmar-devservice and quillmar-companion as real
// processes, paired through the companion's own commands, the bridge passing through BridgeTap.
// What must hold: of two --headless launches at the same moment exactly one runs and connects,
// the other refuses naming it, and the service never sees a second bridge; a desktop launch
// beside --headless, and --headless beside the desktop companion, refuse naming the running
// one while it keeps its connection, even when it is slow to answer (and say so when it never
// does); `status` asks the running companion how its connection is doing; the commands that
// change folders, approval and pairing reach the running companion without a restart; and
// SIGTERM, SIGINT and SIGHUP end either mode with a close frame the companion starts.

#include "BridgeTap.h"
#include "DevServiceProcess.h"
#include "EventWait.h"
#include "HttpJson.h"
#include "LoopbackPort.h"
#include "PairedCompanion.h"
#include "TempTree.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <vector>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");

// The race of two launches is won by chance: several rounds give each side its turn.
constexpr int raceRounds = 5;
// A launch that must refuse waits at most 5 s for the running companion to answer.
constexpr int refusalBoundMs = 15000;
// Starting takes a while under the sanitizers, the desktop companion's window most of all.
constexpr int startBoundMs = 30000;
// The back-off after a few seconds without the service stays well below this.
constexpr int reconnectBoundMs = 45000;

QStringList argumentsFor(bool headless) {
    return headless ? QStringList{QStringLiteral("--headless")} : QStringList{};
}

QByteArray headlessRefusal(const QString& running, qint64 pid) {
    return QStringLiteral("quillmar-companion: a Quillmar companion is already running (%1, "
                          "process %2) and keeps the connection; stop it first.\n")
        .arg(running)
        .arg(pid)
        .toUtf8();
}

QByteArray desktopRefusal(qint64 pid) {
    return QStringLiteral("Quillmar OS is already running without a window (quillmar-companion "
                          "--headless, process %1), and it keeps the connection. Stop it to use "
                          "the window and the tray.\n")
        .arg(pid)
        .toUtf8();
}

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

class SingleCompanionTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir stateDir;
    quint16 servicePort = 0;
    quint16 tapPort = 0;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<BridgeTap> tap;
    std::unique_ptr<HttpJson> http;
    // Its sandbox is the one account every process of a case shares.
    std::unique_ptr<PairedCompanion> companion;
    std::vector<std::unique_ptr<LineProcess>> launched;
    QString deviceId;
    QString shareName;
    bool serviceDown = false;

    QString tapBase() const { return QStringLiteral("http://127.0.0.1:%1").arg(tapPort); }

    LineProcess& launch(const QStringList& arguments) {
        companion->sandbox().setApiBase(tapBase());
        launched.push_back(std::make_unique<LineProcess>());
        launched.back()->start(companionBin, arguments, companion->sandbox().environment());
        return *launched.back();
    }

    // Waits for `process` to end by itself while the tap keeps relaying; its exit code, -1 when
    // it is still running after `timeoutMs` (it is then killed) or did not end normally.
    static int exitOf(LineProcess& process, int timeoutMs) {
        EventWait::until([&] { return !process.isRunning(); }, timeoutMs);
        return process.isRunning() ? (process.kill(), -1) : process.waitForExit(1000);
    }

    // The tap's connection from `first` on that the service greeted and that is still open.
    qsizetype liveSince(qsizetype first) const {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        for (qsizetype i = connections.size() - 1; i >= first; --i) {
            if (connections[i].closedAt < 0 && connections[i].status == 101 &&
                connections[i].helloAt() >= 0) {
                return i;
            }
        }
        return -1;
    }

    bool deviceOnline(const QString& id) {
        return http->get(QStringLiteral("/api/v1/agent/devices/%1").arg(id))
            .json()
            .value(QStringLiteral("online"))
            .toBool();
    }

    CommandRun command(const QStringList& arguments) {
        return companion->command(arguments, tapBase());
    }

    // `status` again until its output holds `text`, a bounded number of times.
    CommandRun statusShowing(const QByteArray& text) {
        CommandRun run;
        for (int attempt = 0; attempt < 40; ++attempt) {
            run = command({QStringLiteral("status")});
            if (run.out.contains(text)) {
                break;
            }
            EventWait::pause(250);
        }
        return run;
    }

    // Starts a companion and waits until the service greeted it over the tap; the tap's
    // connection index through `connection`.
    LineProcess* start(bool headless, qsizetype& connection) {
        const qsizetype first = tap->connections().size();
        LineProcess& process = launch(argumentsFor(headless));
        if (headless && process.waitFor(connected, 0, startBoundMs) < 0) {
            qWarning("--headless did not connect: %s", qPrintable(process.describe()));
            return nullptr;
        }
        if (!EventWait::until([&] { return liveSince(first) >= 0 || !process.isRunning(); },
                              startBoundMs) ||
            !process.isRunning()) {
            qWarning("the companion did not connect: %s", qPrintable(process.describe()));
            return nullptr;
        }
        connection = liveSince(first);
        return &process;
    }

    // Sends `signal` to a companion and gives its exit code.
    static int signalled(LineProcess& process, int signal) {
        const qint64 pid = process.processId();
        if (pid <= 0 || ::kill(pid_t(pid), signal) != 0) {
            return -2;
        }
        return exitOf(process, 10000);
    }

    void takeServiceDown() {
        serviceDown = true;
        service->stop();
        tap->stopListening();
    }

    void bringServiceBack() {
        serviceDown = false;
        if (!service->start(servicePort) || !tap->listen(tapPort)) {
            QFAIL(qPrintable(QStringLiteral("cannot restart the service: ") + service->describe()));
        }
    }

    // Since line `firstLine` of `process` and connection `connection`: no reconnection, no
    // other bridge, and the service counts the device online.
    void checkKeptConnection(const LineProcess& process, qsizetype firstLine,
                             qsizetype connection) {
        for (const QString& line : process.lines().mid(firstLine)) {
            QVERIFY2(!line.startsWith(QStringLiteral("Reconnecting")), qPrintable(line));
        }
        QVERIFY(process.isRunning());
        QCOMPARE(liveSince(0), connection);
        QCOMPARE(tap->connections().size(), connection + 1);
        QVERIFY(deviceOnline(deviceId));
    }

    // One call through the agent API; the device's frame without `type` and `req_id`, or
    // {"status": N, "body": ...} when the service answered something else.
    QJsonObject call(const QString& method, const QJsonObject& params) {
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
                       QJsonObject{{QStringLiteral("method"), method},
                                   {QStringLiteral("params"), params},
                                   {QStringLiteral("timeout_ms"), 15000}},
                       20000);
        QJsonObject frame = QJsonDocument::fromJson(reply.body).object();
        if (reply.status != 200 || frame.value(QStringLiteral("type")).toString() != u"result") {
            return {{QStringLiteral("status"), reply.status},
                    {QStringLiteral("body"), QString::fromUtf8(reply.body.left(500))}};
        }
        frame.remove(QStringLiteral("type"));
        frame.remove(QStringLiteral("req_id"));
        return frame;
    }

    // The names local_list_files gives for the top level: the shared folders.
    QStringList sharedNames() {
        const QJsonObject frame = call(QStringLiteral("local_list_files"), {});
        QStringList names;
        const QJsonArray items = frame.value(QStringLiteral("result"))
                                     .toObject()
                                     .value(QStringLiteral("items"))
                                     .toArray();
        for (const QJsonValue& item : items) {
            names << item.toObject().value(QStringLiteral("name")).toString();
        }
        if (frame.value(QStringLiteral("ok")) != QJsonValue(true)) {
            names << QStringLiteral("<failed: %1>")
                         .arg(QString::fromUtf8(QJsonDocument(frame).toJson()));
        }
        return names;
    }

    QJsonObject write(const QString& path) {
        return call(
            QStringLiteral("local_write_file"),
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("x")}});
    }

    void refreshDeviceId() {
        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        deviceId = devices.isEmpty()
                       ? QString()
                       : devices.last().toObject().value(QStringLiteral("device_id")).toString();
    }

    // Empty when `connection` ended in a close the companion started: its last message a close
    // frame with code `code`, before the TCP connection ended. Either side may end that: the
    // service once it answered with its own close frame (the server closes first, as RFC 6455
    // would have it), or the companion if it was gone before the answer came. Otherwise what
    // passed, in order.
    QString closedByCompanion(qsizetype connection, int code) const {
        const BridgeTap::Connection& recorded = tap->connections()[connection];
        qint64 companionClose = -1;
        qint64 serviceClose = -1;
        int sentCode = -1;
        bool sentAfterClose = false;
        QString passed;
        for (const BridgeTap::Message& message : recorded.messages) {
            passed += QStringLiteral("%1 opcode %2 %3; ")
                          .arg(message.fromService ? u"service" : u"companion")
                          .arg(message.opcode)
                          .arg(QString::fromLatin1(message.payload.left(40).toHex()));
            if (message.fromService) {
                if (message.opcode == 8 && serviceClose < 0) {
                    serviceClose = message.at;
                }
            } else if (companionClose >= 0) {
                sentAfterClose = true;
            } else if (message.opcode == 8 && message.payload.size() >= 2) {
                companionClose = message.at;
                sentCode = (quint8(message.payload[0]) << 8) | quint8(message.payload[1]);
            }
        }
        passed += QStringLiteral("ended by %1").arg(recorded.endedBy);
        const bool ended =
            recorded.closedAt >= 0 && companionClose >= 0 && companionClose <= recorded.closedAt;
        const bool byCompanion = recorded.endedBy == u"companion";
        const bool answered = recorded.endedBy == u"service" && serviceClose >= companionClose;
        const bool clean =
            ended && !sentAfterClose && sentCode == code && (byCompanion || answered);
        return clean ? QString() : passed;
    }

private slots:
    void initTestCase() {
        QVERIFY(stateDir.isValid());
        tree.file(QStringLiteral("Share/notes.txt"), "notes\n");
        tree.dir(QStringLiteral("Extra"));
        servicePort = LoopbackPort::pick();
        tapPort = LoopbackPort::pick();
        QVERIFY(servicePort != 0 && tapPort != 0 && servicePort != tapPort);
        service = std::make_unique<DevServiceProcess>(
            serviceBin, stateDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(servicePort), qPrintable(service->describe()));
        http = std::make_unique<HttpJson>(service->baseUrl());
        tap = std::make_unique<BridgeTap>(servicePort);
        QVERIFY(tap->listen(tapPort));

        companion = std::make_unique<PairedCompanion>(companionBin);
        QVERIFY2(companion->isValid(), qPrintable(companion->problem()));
        // Asking before writing, with no terminal to ask on: every write is refused.
        const QString failure = companion->setUp(service->baseUrl(), service->pairingCode(),
                                                 {tree.path(QStringLiteral("Share"))}, true);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        refreshDeviceId();
        QVERIFY(!deviceId.isEmpty());
        const CommandRun folders = command({QStringLiteral("folders")});
        shareName = QString::fromUtf8(folders.out).section(u'\t', 0, 0);
        QVERIFY2(!shareName.isEmpty(), qPrintable(folders.describe()));
    }

    void cleanup() {
        for (const std::unique_ptr<LineProcess>& process : launched) {
            if (process->isRunning()) {
                // A case may have left it stopped.
                ::kill(pid_t(process->processId()), SIGCONT);
                ::kill(pid_t(process->processId()), SIGTERM);
                exitOf(*process, 10000);
            }
        }
        launched.clear();
        if (serviceDown) {
            bringServiceBack();
        }
    }

    void twoHeadlessAtOnceLeaveOne() {
        for (int round = 0; round < raceRounds; ++round) {
            const qsizetype first = tap->connections().size();
            // Back to back, before either is up.
            LineProcess& one = launch({QStringLiteral("--headless")});
            LineProcess& other = launch({QStringLiteral("--headless")});
            QVERIFY2(EventWait::until([&] { return !one.isRunning() || !other.isRunning(); },
                                      refusalBoundMs),
                     qPrintable(one.describe() + u'\n' + other.describe()));
            LineProcess& loser = one.isRunning() ? other : one;
            LineProcess& winner = one.isRunning() ? one : other;
            QCOMPARE(loser.waitForExit(1000), 1);
            const qsizetype greeted = winner.waitFor(connected, 0, startBoundMs);
            QVERIFY2(greeted >= 0, qPrintable(winner.describe()));
            QCOMPARE(loser.standardError(),
                     headlessRefusal(QStringLiteral("quillmar-companion --headless"),
                                     winner.processId()));
            QVERIFY2(!loser.lines().contains(connected), qPrintable(loser.describe()));

            // Long enough for a second bridge to have knocked the first one off.
            EventWait::pause(2000);
            QVERIFY(winner.isRunning());
            QCOMPARE(tap->connections().size(), first + 1);
            const qsizetype connection = liveSince(first);
            QCOMPARE(connection, first);
            checkKeptConnection(winner, 0, connection);
            if (QTest::currentTestFailed()) {
                return;
            }
            QCOMPARE(signalled(winner, SIGTERM), 0);
            QVERIFY(EventWait::until([&] { return tap->openConnections() == 0; }, 5000));
        }
    }

    void desktopLaunchBesideHeadlessRefuses() {
        qsizetype connection = -1;
        LineProcess* headless = start(true, connection);
        QVERIFY(headless);
        const qsizetype firstLine = headless->lines().size();

        LineProcess& desktop = launch({});
        QCOMPARE(exitOf(desktop, refusalBoundMs), 1);
        QVERIFY2(desktop.standardError().contains(desktopRefusal(headless->processId())),
                 qPrintable(desktop.describe()));
        EventWait::pause(1000);
        checkKeptConnection(*headless, firstLine, connection);
    }

    void headlessLaunchBesideDesktopRefuses() {
        qsizetype connection = -1;
        LineProcess* desktop = start(false, connection);
        QVERIFY(desktop);

        LineProcess& headless = launch({QStringLiteral("--headless")});
        QCOMPARE(exitOf(headless, refusalBoundMs), 1);
        QCOMPARE(headless.standardError(),
                 headlessRefusal(QStringLiteral("the desktop companion, in the tray"),
                                 desktop->processId()));
        QVERIFY2(!headless.lines().contains(connected), qPrintable(headless.describe()));
        EventWait::pause(1000);
        checkKeptConnection(*desktop, 0, connection);
    }

    void lateAnswerStillNamesTheRunningOne() {
        qsizetype connection = -1;
        LineProcess* running = start(true, connection);
        QVERIFY(running);
        const qsizetype firstLine = running->lines().size();
        const qint64 pid = running->processId();
        // Busy for a while, as one that has just started may be: the launches must wait for
        // its answer, not take the silence for one.
        QCOMPARE(::kill(pid_t(pid), SIGSTOP), 0);
        LineProcess& headless = launch({QStringLiteral("--headless")});
        LineProcess& desktop = launch({});
        // Longer than the half second a launch used to wait, well within its patience of 5 s.
        EventWait::pause(3000);
        QCOMPARE(::kill(pid_t(pid), SIGCONT), 0);

        QCOMPARE(exitOf(headless, refusalBoundMs), 1);
        QCOMPARE(headless.standardError(),
                 headlessRefusal(QStringLiteral("quillmar-companion --headless"), pid));
        QCOMPARE(exitOf(desktop, refusalBoundMs), 1);
        QVERIFY2(desktop.standardError().contains(desktopRefusal(pid)),
                 qPrintable(desktop.describe()));
        checkKeptConnection(*running, firstLine, connection);
    }

    void silentCompanionIsSaidToBeSilent() {
        qsizetype connection = -1;
        LineProcess* running = start(true, connection);
        QVERIFY(running);
        const qint64 pid = running->processId();
        QCOMPARE(::kill(pid_t(pid), SIGSTOP), 0);
        LineProcess& headless = launch({QStringLiteral("--headless")});
        LineProcess& desktop = launch({});
        const int headlessExit = exitOf(headless, refusalBoundMs);
        const int desktopExit = exitOf(desktop, refusalBoundMs);
        const CommandRun status = command({QStringLiteral("status")});
        QCOMPARE(::kill(pid_t(pid), SIGCONT), 0);

        QCOMPARE(headlessExit, 1);
        QCOMPARE(headless.standardError(),
                 QByteArray("quillmar-companion: a Quillmar companion is already running but "
                            "does not answer.\n"));
        QCOMPARE(desktopExit, 1);
        QVERIFY2(desktop.standardError().contains(
                     "Quillmar OS is already running but does not answer.\n"),
                 qPrintable(desktop.describe()));
        QVERIFY2(status.out.contains(QStringLiteral("\nRunning: yes (process %1), but it does not "
                                                    "answer\n")
                                         .arg(pid)
                                         .toUtf8()),
                 qPrintable(status.describe()));
    }

    void statusAsksTheRunningCompanion_data() {
        QTest::addColumn<bool>("headless");
        QTest::addColumn<QString>("running");
        QTest::newRow("headless") << true << QStringLiteral("headless");
        QTest::newRow("desktop") << false << QStringLiteral("in the tray");
    }

    void statusAsksTheRunningCompanion() {
        QFETCH(bool, headless);
        QFETCH(QString, running);
        qsizetype connection = -1;
        LineProcess* process = start(headless, connection);
        QVERIFY(process);
        const QByteArray runningLine = QStringLiteral("Running: %1 (process %2)\n")
                                           .arg(running)
                                           .arg(process->processId())
                                           .toUtf8();

        const CommandRun online = command({QStringLiteral("status")});
        QCOMPARE(online.exitCode, 0);
        QVERIFY2(online.out.contains(runningLine), qPrintable(online.describe()));
        QVERIFY2(online.out.contains("\nConnection: Connected to Quillmar\n"),
                 qPrintable(online.describe()));
        QVERIFY2(!online.out.contains("\nWhy: "), qPrintable(online.describe()));

        takeServiceDown();
        const CommandRun offline = statusShowing("\nConnection: Reconnecting in ");
        QCOMPARE(offline.exitCode, 0);
        QVERIFY2(offline.out.contains("\nConnection: Reconnecting in "),
                 qPrintable(offline.describe()));
        QVERIFY2(offline.out.contains(runningLine), qPrintable(offline.describe()));
        const qsizetype why = offline.out.indexOf("\nWhy: ");
        QVERIFY2(why >= 0 && offline.out.at(why + 6) != '\n', qPrintable(offline.describe()));

        const qsizetype first = tap->connections().size();
        bringServiceBack();
        QVERIFY(EventWait::until([&] { return liveSince(first) >= 0; }, reconnectBoundMs));
        const CommandRun again = statusShowing("\nConnection: Connected to Quillmar\n");
        QVERIFY2(again.out.contains("\nConnection: Connected to Quillmar\n"),
                 qPrintable(again.describe()));
    }

    void statusWithoutACompanion() {
        const CommandRun run = command({QStringLiteral("status")});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains("\nRunning: no\n"), qPrintable(run.describe()));
        QVERIFY2(!run.out.contains("Connection: "), qPrintable(run.describe()));
    }

    void foldersAndApprovalReachTheRunningCompanion() {
        qsizetype connection = -1;
        LineProcess* headless = start(true, connection);
        QVERIFY(headless);
        const qsizetype firstLine = headless->lines().size();
        QCOMPARE(sharedNames(), QStringList{shareName});

        const CommandRun added = command(
            {QStringLiteral("folders"), QStringLiteral("add"), tree.path(QStringLiteral("Extra"))});
        QCOMPARE(added.exitCode, 0);
        const QString extraName = QString::fromUtf8(added.out).trimmed();
        QVERIFY(!extraName.isEmpty());
        QCOMPARE(sharedNames(), (QStringList{shareName, extraName}));

        const CommandRun removed =
            command({QStringLiteral("folders"), QStringLiteral("remove"), extraName});
        QCOMPARE(removed.exitCode, 0);
        QCOMPARE(sharedNames(), QStringList{shareName});

        // Asking before writing, and no terminal to ask on: refused.
        const QString first = shareName + QStringLiteral("/first.txt");
        QCOMPARE(write(first).value(QStringLiteral("ok")), QJsonValue(false));
        QVERIFY(!QFile::exists(tree.path(first)));

        QCOMPARE(command({QStringLiteral("approval"), QStringLiteral("off")}).exitCode, 0);
        const QString second = shareName + QStringLiteral("/second.txt");
        const QJsonObject allowed = write(second);
        QVERIFY2(allowed.value(QStringLiteral("ok")) == QJsonValue(true),
                 QJsonDocument(allowed).toJson().constData());
        QCOMPARE(fileBytes(tree.path(second)), QByteArray("x"));

        QCOMPARE(command({QStringLiteral("approval"), QStringLiteral("on")}).exitCode, 0);
        const QString third = shareName + QStringLiteral("/third.txt");
        QCOMPARE(write(third).value(QStringLiteral("ok")), QJsonValue(false));
        QVERIFY(!QFile::exists(tree.path(third)));

        checkKeptConnection(*headless, firstLine, connection);
    }

    void signalsCloseTheBridge_data() {
        QTest::addColumn<bool>("headless");
        QTest::addColumn<int>("signal");
        for (const auto& [name, headless] :
             {std::pair{"desktop", false}, std::pair{"headless", true}}) {
            for (const auto& [signalName, signal] :
                 {std::pair{"SIGTERM", SIGTERM}, std::pair{"SIGINT", SIGINT},
                  std::pair{"SIGHUP", SIGHUP}}) {
                QTest::addRow("%s %s", name, signalName) << headless << signal;
            }
        }
    }

    void signalsCloseTheBridge() {
        QFETCH(bool, headless);
        QFETCH(int, signal);
        qsizetype connection = -1;
        LineProcess* process = start(headless, connection);
        QVERIFY(process);

        QCOMPARE(signalled(*process, signal), 0);
        QVERIFY(
            EventWait::until([&] { return tap->connections()[connection].closedAt >= 0; }, 5000));
        const QString closing = closedByCompanion(connection, 1001);
        QVERIFY2(closing.isEmpty(), qPrintable(closing));
        QVERIFY(EventWait::until([&] { return !deviceOnline(deviceId); }, 5000));
    }

    void unpairAndPairReachTheRunningCompanion() {
        qsizetype connection = -1;
        LineProcess* headless = start(true, connection);
        QVERIFY(headless);
        const qsizetype firstLine = headless->lines().size();
        const QString oldDevice = deviceId;

        const CommandRun unpaired = command({QStringLiteral("unpair")});
        QCOMPARE(unpaired.exitCode, 0);
        QVERIFY(
            EventWait::until([&] { return tap->connections()[connection].closedAt >= 0; }, 10000));
        const QString closing = closedByCompanion(connection, 1001);
        QVERIFY2(closing.isEmpty(), qPrintable(closing));
        QVERIFY(EventWait::until([&] { return !deviceOnline(oldDevice); }, 5000));
        QVERIFY2(headless->waitFor(QStringLiteral("Not connected"), firstLine, 10000) >= 0,
                 qPrintable(headless->describe()));
        QVERIFY(headless->isRunning());
        // Nothing to connect with: no new bridge comes.
        EventWait::pause(1500);
        QCOMPARE(tap->connections().size(), connection + 1);

        const HttpJson::Reply code =
            http->post(QStringLiteral("/api/v1/agent/pairing-codes"), QJsonObject{});
        QCOMPARE(code.status, 201);
        const CommandRun paired = companion->command(
            {QStringLiteral("pair"), code.json().value(QStringLiteral("code")).toString()},
            service->baseUrl());
        QCOMPARE(paired.exitCode, 0);
        QVERIFY2(headless->waitFor(connected, firstLine, startBoundMs) >= 0,
                 qPrintable(headless->describe()));
        QVERIFY(EventWait::until([&] { return liveSince(connection + 1) >= 0; }, 5000));
        refreshDeviceId();
        QVERIFY(deviceId != oldDevice);
        QVERIFY(deviceOnline(deviceId));
        QVERIFY(!deviceOnline(oldDevice));
        QCOMPARE(sharedNames(), QStringList{shareName});
    }
};

QTEST_GUILESS_MAIN(SingleCompanionTest)
#include "tst_singlecompanion.moc"
