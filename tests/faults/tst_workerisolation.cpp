// The file tools' worker process as the service meets it, end to end: quillmar-devservice and
// quillmar-companion --headless as real processes, the bridge passing through BridgeTap. The
// worker is stopped (SIGSTOP) to make a call last as long as the test wants, and killed
// (SIGKILL) in the middle of one. What must hold: a killed worker takes only its own call with
// it, and the next call is served by a new one over the same connection; while a call hangs,
// the companion still answers WebSocket pings at once and sends its own keep-alive on time;
// and a write the user allows only after the bridge dropped (before or after the question came
// up) is not made.

#include "AgentLoad.h"
#include "BridgeTap.h"
#include "DevServiceProcess.h"
#include "EventWait.h"
#include "HttpJson.h"
#include "PairedCompanion.h"
#include "ProcessPeek.h"
#include "PtyProcess.h"
#include "TempTree.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>

#include <unistd.h>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString workerBin = QStringLiteral(QUILLMAR_FILE_WORKER_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QByteArray notes = "first line\nsecond line\n";
const QString killedMidCall =
    QStringLiteral("The file tools stopped unexpectedly while handling this call (stopped by "
                   "signal 9). Try again: they start afresh for the next call.");

// A pong later than this means the companion's event loop was held up.
constexpr qint64 pongBoundMs = 1000;
// The keep-alive is due 30 s after the socket was opened; the tap sees the connection a few
// milliseconds after that, and a loaded machine may run a timer a little late.
constexpr qint64 keepAliveMs = 30000;
constexpr qint64 keepAliveSlackMs = 2000;
// How long a call is held in a stopped worker at least.
constexpr qint64 shortestStallMs = 10000;

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QJsonObject errorOnly(const QString& message) {
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}};
}

QByteArray question(const QString& path, qint64 bytes) {
    return "An agent wants to write " + QByteArray::number(bytes) + " bytes to:\n" + path.toUtf8() +
           "\nAllow? [y/N] ";
}

} // namespace

class WorkerIsolationTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir stateDir;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<BridgeTap> tap;
    std::unique_ptr<HttpJson> http;
    std::unique_ptr<PairedCompanion> companion;
    // The companion when it runs on a terminal of its own, to be asked about writes there.
    std::unique_ptr<PtyProcess> terminal;
    QString deviceId;
    // The worker a case stopped; let go again after a failed case, for the next one.
    qint64 stoppedWorker = 0;

    QString tapBase() const { return QStringLiteral("http://127.0.0.1:%1").arg(tap->port()); }

    // The tap's connection on which the service greeted the companion and that is still open;
    // -1 if none.
    qsizetype live() const {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        for (qsizetype i = connections.size() - 1; i >= 0; --i) {
            if (connections[i].closedAt < 0 && connections[i].status == 101 &&
                connections[i].helloAt() >= 0) {
                return i;
            }
        }
        return -1;
    }

    qint64 companionPid() const {
        const QList<qint64> found = ProcessPeek::childrenRunning(::getpid(), companionBin);
        return found.size() == 1 ? found.front() : 0;
    }

    // The companion's one worker, once there is exactly one; 0 if there is none.
    qint64 workerPid() const {
        const qint64 parent = companionPid();
        QList<qint64> found;
        EventWait::until(
            [&] {
                found = ProcessPeek::childrenRunning(parent, workerBin);
                return found.size() == 1;
            },
            5000);
        return parent > 0 && found.size() == 1 ? found.front() : 0;
    }

    // Stops the worker and waits until the kernel shows it stopped.
    bool stopWorker(qint64 pid) {
        if (pid <= 0) {
            return false; // kill() would take 0 for this whole process group
        }
        stoppedWorker = pid;
        return ::kill(pid_t(pid), SIGSTOP) == 0 &&
               EventWait::until([&] { return ProcessPeek::state(pid) == 'T'; }, 5000);
    }

    // Waits until a call waits unread in the stopped worker's socket: the companion has handed
    // it on. Where the system does not let the test look, a second is ample for that.
    bool callReachedWorker(qint64 pid) {
        if (ProcessPeek::unreadBytes(pid, STDIN_FILENO) < 0) {
            qInfo("cannot see into the worker's socket; waiting a second instead");
            EventWait::pause(1000);
            return true;
        }
        return EventWait::until([&] { return ProcessPeek::unreadBytes(pid, STDIN_FILENO) > 0; },
                                10000);
    }

    // One call through the agent API, waited for; the device's frame without `type` and
    // `req_id`, or {"status": N, "body": ...} when the service answered something else.
    QJsonObject call(const QString& method, const QJsonObject& params) {
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
                       QJsonObject{{QStringLiteral("method"), method},
                                   {QStringLiteral("params"), params},
                                   {QStringLiteral("timeout_ms"), 15000}},
                       20000);
        return frameOf(reply.status, reply.body);
    }

    static QJsonObject frameOf(int status, const QByteArray& body) {
        QJsonObject frame = QJsonDocument::fromJson(body).object();
        if (status != 200 || frame.value(QStringLiteral("type")).toString() != u"result") {
            return {{QStringLiteral("status"), status},
                    {QStringLiteral("body"), QString::fromUtf8(body.left(500))}};
        }
        frame.remove(QStringLiteral("type"));
        frame.remove(QStringLiteral("req_id"));
        return frame;
    }

    // One call sent and left running; the test goes on while the service waits for the answer.
    std::unique_ptr<AgentLoad> callInBackground(const QString& method, const QJsonObject& params,
                                                int serviceMs = 60000) {
        auto agent = std::make_unique<AgentLoad>(service->port(), deviceId, [=](int) {
            return AgentLoad::Call{method, params};
        });
        agent->setWorkers(1);
        agent->setCallLimit(1);
        agent->setTimeouts(serviceMs, serviceMs + 10000);
        agent->start();
        return agent;
    }

    static bool answered(const AgentLoad& agent) {
        return !agent.records().isEmpty() && agent.records().front().finishedAt >= 0;
    }

    // The answer to a call in the background, waited for.
    static QJsonObject answerOf(const AgentLoad& agent, int timeoutMs = 20000) {
        if (!EventWait::until([&] { return answered(agent); }, timeoutMs)) {
            return {{QStringLiteral("status"), QStringLiteral("no answer in time")}};
        }
        const AgentLoad::Record& record = agent.records().front();
        return frameOf(record.status, record.body);
    }

    void checkReads() {
        const QJsonObject frame =
            call(QStringLiteral("local_read_file"),
                 {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}});
        QCOMPARE(frame, (QJsonObject{
                            {QStringLiteral("ok"), true},
                            {QStringLiteral("result"),
                             QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")},
                                         {QStringLiteral("content"), QString::fromUtf8(notes)},
                                         {QStringLiteral("truncated"), false}}}}));
    }

    void startCompanion() {
        if (!companion->isRunning()) {
            terminal.reset();
            QVERIFY2(companion->start(tapBase()), qPrintable(companion->describe()));
            QVERIFY(EventWait::until([&] { return live() >= 0; }, 5000));
        }
    }

    // Since line `firstLine` and connection `connection`: the companion never went offline,
    // no other bridge was opened, and the service still counts the device online.
    void checkNoReconnect(qsizetype firstLine, qsizetype connection) {
        const QStringList lines = companion->lines().mid(firstLine);
        for (const QString& line : lines) {
            QVERIFY2(!line.startsWith(QStringLiteral("Reconnecting")), qPrintable(line));
        }
        QCOMPARE(live(), connection);
        QCOMPARE(tap->connections().size(), connection + 1);
        const QJsonObject device =
            http->get(QStringLiteral("/api/v1/agent/devices/%1").arg(deviceId)).json();
        QCOMPARE(device.value(QStringLiteral("online")), QJsonValue(true));
    }

    // When the companion answered the tap's ping `payload` on `connection`, -1 if it has not.
    qint64 pongAt(qsizetype connection, const QByteArray& payload) const {
        for (const BridgeTap::Message& message : tap->connections()[connection].messages) {
            if (!message.fromService && message.opcode == 10 && message.payload == payload) {
                return message.at;
            }
        }
        return -1;
    }

    // The companion's own keep-alive messages on `connection`, when the tap saw them.
    QList<qint64> keepAlives(qsizetype connection) const {
        QList<qint64> times;
        for (const BridgeTap::Message& message : tap->connections()[connection].messages) {
            if (!message.fromService && message.type == u"ping") {
                times.append(message.at);
            }
        }
        return times;
    }

    // The req_id of the last call the service sent on `connection`.
    QString lastCall(qsizetype connection) const {
        QString reqId;
        for (const BridgeTap::Message& message : tap->connections()[connection].messages) {
            if (message.fromService && message.type == u"call") {
                reqId = message.reqId;
            }
        }
        return reqId;
    }

    // The companion's results on `connection` for the call `reqId`.
    int resultsFor(qsizetype connection, const QString& reqId) const {
        int results = 0;
        for (const BridgeTap::Message& message : tap->connections()[connection].messages) {
            results += !message.fromService && message.type == u"result" && message.reqId == reqId;
        }
        return results;
    }

    // ---- the companion on a terminal ----

    void startOnTerminal() {
        if (terminal) {
            return;
        }
        companion->stop();
        companion->sandbox().setApiBase(tapBase());
        terminal = std::make_unique<PtyProcess>();
        QVERIFY(terminal->start(companionBin, {QStringLiteral("--headless")},
                                companion->sandbox().environment()));
        QVERIFY2(screenShows(connected.toUtf8() + '\n'), terminal->output().constData());
        QVERIFY(EventWait::until([&] { return live() >= 0; }, 5000));
    }

    // Reads the terminal while the event loop runs (the tap relays the bridge meanwhile) until
    // `text` is on it `times` times.
    bool screenShows(const QByteArray& text, int times = 1, int timeoutMs = 20000) {
        return EventWait::until(
            [&] {
                terminal->readAvailable();
                return terminal->output().count(text) >= times;
            },
            timeoutMs);
    }

    void drop() {
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/drop").arg(deviceId),
                       QJsonObject{{QStringLiteral("refuse_seconds"), 0}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("dropped")), QJsonValue(true));
    }

    // A write the user allows on the terminal over a connection that stays up is made.
    void checkAllowedWrite(const QString& name) {
        const QString path = QStringLiteral("Docs/") + name;
        const std::unique_ptr<AgentLoad> agent = callInBackground(
            QStringLiteral("local_write_file"),
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("kept")}});
        const int asked = int(terminal->output().count(question(path, 4)));
        QVERIFY2(screenShows(question(path, 4), asked + 1), terminal->output().constData());
        QVERIFY(terminal->type("y\n"));
        QCOMPARE(answerOf(*agent), (QJsonObject{{QStringLiteral("ok"), true},
                                                {QStringLiteral("result"),
                                                 QJsonObject{{QStringLiteral("success"), true},
                                                             {QStringLiteral("path"), path},
                                                             {QStringLiteral("bytes"), 4}}}}));
        QCOMPARE(fileBytes(tree.path(path)), QByteArray("kept"));
    }

private slots:
    void initTestCase() {
        QVERIFY(stateDir.isValid());
        tree.file(QStringLiteral("Docs/notes.txt"), notes);
        service = std::make_unique<DevServiceProcess>(
            serviceBin, stateDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        http = std::make_unique<HttpJson>(service->baseUrl());
        tap = std::make_unique<BridgeTap>(service->port());
        QVERIFY(tap->listen(0));

        companion = std::make_unique<PairedCompanion>(companionBin);
        QVERIFY2(companion->isValid(), qPrintable(companion->problem()));
        // Asking before writes: only the terminal's companion writes, and it is asked.
        const QString failure = companion->setUp(service->baseUrl(), service->pairingCode(),
                                                 {tree.path(QStringLiteral("Docs"))}, true);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        deviceId = http->get(QStringLiteral("/api/v1/agent/devices"))
                       .json()
                       .value(QStringLiteral("devices"))
                       .toArray()
                       .at(0)
                       .toObject()
                       .value(QStringLiteral("device_id"))
                       .toString();
        QVERIFY(!deviceId.isEmpty());
    }

    void cleanup() {
        if (stoppedWorker > 0 && ProcessPeek::state(stoppedWorker) == 'T') {
            ::kill(pid_t(stoppedWorker), SIGCONT);
        }
        stoppedWorker = 0;
    }

    void cleanupTestCase() {
        if (terminal) {
            const qint64 pid = companionPid();
            if (pid > 0) {
                ::kill(pid_t(pid), SIGTERM);
            }
            QCOMPARE(terminal->waitForExit(), 0);
        }
        if (companion && companion->isRunning()) {
            QCOMPARE(companion->stop(), 0);
        }
    }

    void killedWorkerTakesOnlyItsCall() {
        startCompanion();
        const qsizetype connection = live();
        const qsizetype firstLine = companion->lines().size();
        checkReads();
        const qint64 worker = workerPid();
        QVERIFY(worker > 0);
        QVERIFY(stopWorker(worker));

        const std::unique_ptr<AgentLoad> agent = callInBackground(
            QStringLiteral("local_list_files"), {{QStringLiteral("path"), QStringLiteral("Docs")}});
        QVERIFY(callReachedWorker(worker));
        QCOMPARE(::kill(pid_t(worker), SIGKILL), 0);
        QCOMPARE(answerOf(*agent), errorOnly(killedMidCall));
        // Reaped by the companion, not left a zombie.
        QVERIFY(EventWait::until([&] { return ProcessPeek::state(worker) == 0; }, 5000));

        checkReads();
        const qint64 next = workerPid();
        QVERIFY(next > 0);
        QVERIFY(next != worker);
        checkNoReconnect(firstLine, connection);
    }

    void longCallKeepsTheCompanionResponsive() {
        // A fresh connection, so that its first keep-alive falls inside the stall.
        companion->stop();
        startCompanion();
        const qsizetype connection = live();
        QVERIFY(connection >= 0);
        const qint64 openedAt = tap->connections()[connection].openedAt;
        const qsizetype firstLine = companion->lines().size();
        checkReads();
        const qint64 worker = workerPid();
        QVERIFY(worker > 0);
        QVERIFY(stopWorker(worker));

        const std::unique_ptr<AgentLoad> agent =
            callInBackground(QStringLiteral("local_read_file"),
                             {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}});
        QVERIFY(callReachedWorker(worker));
        const qint64 stalledAt = BridgeTap::now();

        // Pings all through the stall, each answered within the bound, until the keep-alive
        // has come too; bounded by the time the keep-alive is due.
        int probes = 0;
        qint64 slowest = 0;
        bool statusServed = false;
        while (BridgeTap::now() < openedAt + keepAliveMs + keepAliveSlackMs + 1000) {
            if (BridgeTap::now() - stalledAt >= shortestStallMs &&
                !keepAlives(connection).isEmpty()) {
                break;
            }
            const QByteArray payload = "probe-" + QByteArray::number(probes++);
            qint64 sentAt = -1;
            QVERIFY(EventWait::until(
                [&] { return (sentAt = tap->pingCompanion(connection, payload)) >= 0; }, 1000));
            qint64 answeredAt = -1;
            EventWait::until([&] { return (answeredAt = pongAt(connection, payload)) >= 0; }, 5000);
            QVERIFY2(answeredAt >= 0, payload.constData());
            slowest = std::max(slowest, answeredAt - sentAt);
            QVERIFY2(answeredAt - sentAt <= pongBoundMs,
                     qPrintable(QStringLiteral("pong after %1 ms").arg(answeredAt - sentAt)));
            if (!statusServed && BridgeTap::now() - stalledAt >= 2000) {
                // Only a stand-in: --headless has no channel for a second launch, and `status`
                // reads the stored state without asking the running companion.
                const CommandRun status = companion->command({QStringLiteral("status")}, tapBase());
                QCOMPARE(status.exitCode, 0);
                QVERIFY2(status.out.contains("Paired: yes\n"), qPrintable(status.describe()));
                statusServed = true;
            }
            EventWait::pause(200);
        }
        qInfo("%d pings during a stall of %lld ms, the slowest pong after %lld ms", probes,
              BridgeTap::now() - stalledAt, slowest);
        QVERIFY(statusServed);
        QVERIFY(BridgeTap::now() - stalledAt >= shortestStallMs);
        // The call was held all along.
        QVERIFY(!answered(*agent));
        const QString stalled = lastCall(connection);
        QVERIFY(!stalled.isEmpty());
        QCOMPARE(resultsFor(connection, stalled), 0);

        const QList<qint64> pings = keepAlives(connection);
        QCOMPARE(pings.size(), 1);
        QVERIFY2(pings.front() > stalledAt, qPrintable(QString::number(pings.front() - stalledAt)));
        QVERIFY2(
            qAbs(pings.front() - openedAt - keepAliveMs) <= keepAliveSlackMs,
            qPrintable(
                QStringLiteral("keep-alive %1 ms after connecting").arg(pings.front() - openedAt)));

        QCOMPARE(::kill(pid_t(worker), SIGCONT), 0);
        QCOMPARE(
            answerOf(*agent),
            (QJsonObject{{QStringLiteral("ok"), true},
                         {QStringLiteral("result"),
                          QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")},
                                      {QStringLiteral("content"), QString::fromUtf8(notes)},
                                      {QStringLiteral("truncated"), false}}}}));
        QCOMPARE(resultsFor(connection, stalled), 1);
        QCOMPARE(workerPid(), worker);
        checkNoReconnect(firstLine, connection);
    }

    void stoppingTheCompanionMidCallLeavesNoWorker() {
        startCompanion();
        checkReads();
        const qint64 worker = workerPid();
        QVERIFY(worker > 0);
        QVERIFY(stopWorker(worker));
        const std::unique_ptr<AgentLoad> agent = callInBackground(
            QStringLiteral("local_list_files"), {{QStringLiteral("path"), QStringLiteral("Docs")}});
        QVERIFY(callReachedWorker(worker));

        // SIGTERM reaches the event loop through a socket: it is served while the call hangs.
        const qint64 askedAt = BridgeTap::now();
        QCOMPARE(companion->stop(), 0);
        const qint64 took = BridgeTap::now() - askedAt;
        QVERIFY2(took <= 5000, qPrintable(QStringLiteral("stopped after %1 ms").arg(took)));
        QVERIFY(companion->outputs().last().contains("\nStopped\n"));
        QVERIFY(EventWait::until([&] { return ProcessPeek::state(worker) == 0; }, 5000));
        // The service learns that the device went away instead of waiting.
        const QJsonObject answer = answerOf(*agent);
        QCOMPARE(answer.value(QStringLiteral("status")), QJsonValue(502));
    }

    void lateAllowAfterADropWritesNothing() {
        startOnTerminal();
        const QString path = QStringLiteral("Docs/late-allow.txt");
        const qsizetype connection = live();
        const int greetings = int(terminal->output().count(connected.toUtf8() + '\n'));

        const std::unique_ptr<AgentLoad> agent = callInBackground(
            QStringLiteral("local_write_file"),
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("late")}},
            30000);
        QVERIFY2(screenShows(question(path, 4)), terminal->output().constData());
        drop();
        QCOMPARE(answerOf(*agent).value(QStringLiteral("status")), QJsonValue(502));
        // The companion is on a new connection before the user answers; the question came over
        // the old one, so the answer must not count.
        QVERIFY(EventWait::until([&] { return live() > connection; }, 15000));
        QVERIFY(!QFile::exists(tree.path(path)));
        QVERIFY(terminal->type("y\n"));
        // The new connection's greeting is taken up once the call is over.
        QVERIFY2(screenShows(connected.toUtf8() + '\n', greetings + 1),
                 terminal->output().constData());
        QVERIFY(!QFile::exists(tree.path(path)));

        checkAllowedWrite(QStringLiteral("after-late-allow.txt"));
        // Everything the companion sent before that write's answer has passed the tap by now.
        // The declined write's answer belongs to the dropped connection and has nowhere to go.
        const QString late = lastCall(connection);
        QVERIFY(!late.isEmpty());
        QCOMPARE(resultsFor(connection, late), 0);
        QCOMPARE(resultsFor(live(), late), 0);
    }

    void approvalAskedAfterAReconnectWritesNothing() {
        startOnTerminal();
        const QString path = QStringLiteral("Docs/late-question.txt");
        checkReads();
        const qint64 worker = workerPid();
        QVERIFY(worker > 0);
        QVERIFY(stopWorker(worker));
        const qsizetype connection = live();
        const int greetings = int(terminal->output().count(connected.toUtf8() + '\n'));

        const std::unique_ptr<AgentLoad> agent = callInBackground(
            QStringLiteral("local_write_file"),
            {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("late")}},
            30000);
        QVERIFY(callReachedWorker(worker));
        drop();
        QCOMPARE(answerOf(*agent).value(QStringLiteral("status")), QJsonValue(502));
        QVERIFY(EventWait::until([&] { return live() > connection; }, 15000));

        // Only now, on the new connection, does the question come up.
        QCOMPARE(::kill(pid_t(worker), SIGCONT), 0);
        QVERIFY2(screenShows(question(path, 4)), terminal->output().constData());
        QVERIFY(terminal->type("y\n"));
        QVERIFY2(screenShows(connected.toUtf8() + '\n', greetings + 1),
                 terminal->output().constData());
        QVERIFY(!QFile::exists(tree.path(path)));

        checkAllowedWrite(QStringLiteral("after-late-question.txt"));
    }
};

QTEST_GUILESS_MAIN(WorkerIsolationTest)
#include "tst_workerisolation.moc"
