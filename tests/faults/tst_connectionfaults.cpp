// The bridge under connection faults while an agent keeps calls coming: the service drops the
// companion's connection, refuses bridges for a while, and is killed and started again on its
// port with its state file. quillmar-companion --headless and quillmar-devservice are the real
// executables; the bridge passes through BridgeTap, which records on the service's side of it
// when each connection came, how it was answered and ended, and every message on it.
//
// What must hold afterwards: every call the service delivered was answered once, in the order
// delivered, and the answer is that call's own (each call reads, lists or searches something
// named by its index); calls made while the device was offline got the service's offline
// error; and every reconnection came after the delay the companion announced (2, 4, 8, 16,
// 30 s, from 2 s again after each hello), not sooner and not much later, seen from both sides.

#include "AgentLoad.h"
#include "BridgeTap.h"
#include "DevServiceProcess.h"
#include "EventWait.h"
#include "HttpJson.h"
#include "LoopbackPort.h"
#include "PairedCompanion.h"
#include "ScratchTree.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <numeric>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QString connecting = QStringLiteral("Connecting\u2026");

QString reconnecting(int seconds) {
    return QStringLiteral("Reconnecting in %1s\u2026").arg(seconds);
}

// Every call names something of its own: call i reads Load/r/i.txt, lists Load/l/i or searches
// for hit-i., by i modulo 3. There are files for this many calls. Find is shared first and a
// search stops at its first match, so it never walks the thousands of directories in Load.
constexpr int plannedCalls = 7500;
// Answered calls between two faults.
constexpr int callsBetweenFaults = 400;
constexpr int workers = 4;

// Times are read on this process's event loop (a status line, an accepted connection), so an
// interval may look a little shorter than it was; never much longer unless the machine is
// slow, which the generous upper bound allows for.
constexpr qint64 earlyMs = 150;
constexpr qint64 lateMs = 2500;
// How long before the tap saw a cut the service may already have made it.
constexpr qint64 cutMs = 250;

AgentLoad::Call plannedCall(int index) {
    AgentLoad::Call call;
    const QString n = QString::number(index);
    switch (index % 3) {
    case 0:
        call.method = QStringLiteral("local_read_file");
        call.params = {{QStringLiteral("path"), QStringLiteral("Load/r/%1.txt").arg(n)}};
        break;
    case 1:
        call.method = QStringLiteral("local_list_files");
        call.params = {{QStringLiteral("path"), QStringLiteral("Load/l/%1").arg(n)}};
        break;
    default:
        call.method = QStringLiteral("local_search_files");
        call.params = {{QStringLiteral("query"), QStringLiteral("hit-%1.").arg(n)},
                       {QStringLiteral("max_results"), 1}};
        break;
    }
    // Ignored by the tools; lets the wire record name the agent's call.
    call.params.insert(QStringLiteral("call_index"), index);
    return call;
}

// Empty when `result` is exactly what call `index` had to give.
QString wrongResult(int index, const QJsonObject& result) {
    const QString n = QString::number(index);
    QJsonObject expected;
    switch (index % 3) {
    case 0:
        expected = {{QStringLiteral("path"), QStringLiteral("Load/r/%1.txt").arg(n)},
                    {QStringLiteral("content"), QStringLiteral("read %1\n").arg(n)},
                    {QStringLiteral("truncated"), false}};
        break;
    case 1: {
        const QJsonArray items = result.value(QStringLiteral("items")).toArray();
        if (result.value(QStringLiteral("path")).toString() == QStringLiteral("Load/l/%1").arg(n) &&
            result.value(QStringLiteral("count")).toInteger() == 1 && items.size() == 1 &&
            items[0].toObject().value(QStringLiteral("name")).toString() ==
                QStringLiteral("m%1.txt").arg(n)) {
            return QString();
        }
        return QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Compact));
    }
    default:
        expected = {
            {QStringLiteral("query"), QStringLiteral("hit-%1.").arg(n)},
            {QStringLiteral("matches"), QJsonArray{QStringLiteral("Find/hit-%1.txt").arg(n)}},
            {QStringLiteral("count"), 1}};
        break;
    }
    return result == expected
               ? QString()
               : QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Compact));
}

bool within(qint64 value, qint64 low, qint64 high) {
    return value >= low && value <= high;
}

} // namespace

class ConnectionFaultsTest : public QObject {
    Q_OBJECT

    // One fault and the companion's way back from it.
    struct Episode {
        QString name;
        // The delays the companion must announce, in order, before it is greeted again.
        QList<int> delays;
        // The service was down: its port was closed, so only the last attempt reached it.
        bool serviceDown = false;
        // The companion's first status line of the episode, and the service's side: when the
        // live connection ended there, and which connection that was.
        qsizetype firstLine = -1;
        qint64 cutAt = -1;
        qsizetype liveConnection = -1;
    };

    ScratchTree tree;
    QTemporaryDir stateDir;
    quint16 servicePort = 0;
    quint16 tapPort = 0;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<BridgeTap> tap;
    std::unique_ptr<PairedCompanion> companion;
    std::unique_ptr<HttpJson> http;
    std::unique_ptr<AgentLoad> load;
    QString deviceId;
    qsizetype greetedLine = -1;
    QList<Episode> episodes;
    // While the service was dead: [killed, listening again].
    QList<std::pair<qint64, qint64>> deadTimes;

    QString apiBase(quint16 port) const { return QStringLiteral("http://127.0.0.1:%1").arg(port); }

    // The tap's connection on which the companion is online now, -1 if none.
    qsizetype liveConnection() const {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        for (qsizetype i = connections.size() - 1; i >= 0; --i) {
            if (connections[i].closedAt < 0 && connections[i].status == 101 &&
                connections[i].helloAt() >= 0) {
                return i;
            }
        }
        return -1;
    }

    void drop(int refuseSeconds) {
        const HttpJson::Reply reply =
            http->post(QStringLiteral("/api/v1/agent/devices/%1/drop").arg(deviceId),
                       QJsonObject{{QStringLiteral("refuse_seconds"), refuseSeconds}});
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("dropped")), QJsonValue(true));
    }

    void refuse(int seconds) {
        const HttpJson::Reply reply = http->post(QStringLiteral("/api/v1/agent/bridge/refuse"),
                                                 QJsonObject{{QStringLiteral("seconds"), seconds}});
        QCOMPARE(reply.status, 200);
    }

    void killService(int downMs) {
        const qint64 killedAt = BridgeTap::now();
        service->stop();
        tap->stopListening();
        EventWait::pause(downMs);
        QVERIFY2(service->start(servicePort), qPrintable(service->describe()));
        QVERIFY(tap->listen(tapPort));
        deadTimes.append({killedAt, BridgeTap::now()});
    }

    // Lets `callsBetweenFaults` more calls be answered, brings about the fault and waits until
    // the companion is greeted again.
    void runEpisode(Episode episode, const std::function<void()>& fault) {
        const int target = load->answered() + callsBetweenFaults;
        QVERIFY2(EventWait::until([&] { return load->answered() >= target; }, 60000),
                 qPrintable(QStringLiteral("%1 calls answered").arg(load->answered())));
        episode.liveConnection = liveConnection();
        QVERIFY(episode.liveConnection >= 0);
        episode.firstLine = companion->lines().size();
        fault();
        if (QTest::currentTestFailed()) {
            return;
        }
        const int longest = std::accumulate(episode.delays.cbegin(), episode.delays.cend(), 0);
        EventWait::until(
            [&] {
                return companion->lines().indexOf(connected, episode.firstLine) >= 0 ||
                       !companion->isRunning();
            },
            (longest + 15) * 1000);
        const qsizetype back = companion->lines().indexOf(connected, episode.firstLine);
        QVERIFY2(back >= 0,
                 qPrintable(episode.name + QStringLiteral(": ") + companion->describe()));
        const BridgeTap::Connection& cut = tap->connections().at(episode.liveConnection);
        QVERIFY2(cut.closedAt >= 0, qPrintable(episode.name));
        episode.cutAt = cut.closedAt;
        episodes.append(episode);
        qInfo("%s: back after %lld ms", qPrintable(episode.name),
              static_cast<long long>(companion->lineTime(back) - episode.cutAt));
    }

    // The companion's status lines after its first greeting are exactly the episodes'
    // announcements, each announced wait lasted that long, and every other line says why.
    void checkCompanionSide() {
        QStringList expected;
        for (const Episode& episode : std::as_const(episodes)) {
            for (int delay : episode.delays) {
                expected << reconnecting(delay) << connecting;
            }
            expected << connected;
        }
        const QStringList lines = companion->lines();
        QStringList statuses;
        QList<qsizetype> statusAt;
        QStringList reasons;
        for (qsizetype i = greetedLine + 1; i < lines.size(); ++i) {
            if (lines[i] == connecting || lines[i] == connected ||
                lines[i].startsWith(u"Reconnecting in ")) {
                statuses << lines[i];
                statusAt << i;
            } else if (PairedCompanion::isAgentCallLine(lines[i])) {
                continue; // the agents' calls, one line each
            } else {
                reasons << lines[i];
            }
        }
        QCOMPARE(statuses, expected);
        QVERIFY2(!reasons.isEmpty(), "no reason was given for any of the failures");
        for (const QString& reason : std::as_const(reasons)) {
            QVERIFY2(reason.endsWith(u'.') && reason.size() > 10, qPrintable(reason));
        }

        QStringList measured;
        for (qsizetype k = 0; k + 1 < statuses.size(); ++k) {
            if (!statuses[k].startsWith(u"Reconnecting in ")) {
                continue;
            }
            const qint64 announced = statuses[k].mid(16).section(u's', 0, 0).toLongLong() * 1000;
            const qint64 waited =
                companion->lineTime(statusAt[k + 1]) - companion->lineTime(statusAt[k]);
            measured << QStringLiteral("%1→%2").arg(announced / 1000).arg(waited);
            QVERIFY2(
                within(waited, announced - earlyMs, announced + lateMs),
                qPrintable(
                    QStringLiteral("announced %1 ms, waited %2 ms").arg(announced).arg(waited)));
        }
        qInfo("companion side, announced s → waited ms: %s", qPrintable(measured.join(u", ")));
    }

    // Seen from the service's side: after each cut, the companion's attempts came after the
    // announced delays; refused ones were answered 503 and the last one 101.
    void checkServiceSide() {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        QStringList measured;
        for (const Episode& episode : std::as_const(episodes)) {
            QList<const BridgeTap::Connection*> attempts;
            for (qsizetype i = episode.liveConnection + 1; i < connections.size(); ++i) {
                attempts.append(&connections[i]);
                if (connections[i].status == 101) {
                    break;
                }
            }
            QVERIFY(!attempts.isEmpty());
            QCOMPARE(attempts.back()->status, 101);
            QVERIFY(attempts.back()->helloAt() >= 0);
            QStringList gaps;
            if (episode.serviceDown) {
                // The attempts made while the port was closed never reached it.
                QCOMPARE(attempts.size(), 1);
                const qint64 total =
                    std::accumulate(episode.delays.cbegin(), episode.delays.cend(), 0) * 1000;
                const qint64 gap = attempts.front()->openedAt - episode.cutAt;
                gaps << QString::number(gap);
                QVERIFY2(within(gap, total - earlyMs, total + lateMs * episode.delays.size()),
                         qPrintable(QStringLiteral("%1: %2 ms after the cut, %3 ms announced")
                                        .arg(episode.name)
                                        .arg(gap)
                                        .arg(total)));
            } else {
                QCOMPARE(attempts.size(), episode.delays.size());
                qint64 previous = episode.cutAt;
                for (qsizetype k = 0; k < attempts.size(); ++k) {
                    if (k + 1 < attempts.size()) {
                        QCOMPARE(attempts[k]->status, 503);
                    }
                    const qint64 announced = qint64(episode.delays[k]) * 1000;
                    const qint64 gap = attempts[k]->openedAt - previous;
                    gaps << QString::number(gap);
                    QVERIFY2(within(gap, announced - earlyMs, announced + lateMs),
                             qPrintable(QStringLiteral("%1: attempt %2 came %3 ms after the "
                                                       "last, %4 ms announced")
                                            .arg(episode.name)
                                            .arg(k + 1)
                                            .arg(gap)
                                            .arg(announced)));
                    previous = attempts[k]->openedAt;
                }
            }
            measured << QStringLiteral("%1 [%2]").arg(episode.name, gaps.join(u' '));
        }
        qInfo("service side, ms from the cut to each attempt: %s",
              qPrintable(measured.join(u"; ")));
    }

    // Every call delivered on a connection was answered once and in order, until the
    // connection ended; each answer the agent got is the one the companion sent for its call.
    void checkCalls() {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        const QList<AgentLoad::Record>& records = load->records();

        struct Delivery {
            qsizetype connection = -1;
            bool answered = false;
            // Answered just as the service cut the connection: the answer passed the tap but
            // the service no longer took it.
            bool answeredAtTheCut = false;
            QString reqId;
            QByteArray result;
        };
        QHash<int, Delivery> deliveries; // by call index
        QHash<QString, int> callOfReqId;
        int resultFrames = 0;
        for (qsizetype c = 0; c < connections.size(); ++c) {
            QList<const BridgeTap::Message*> calls;
            QList<const BridgeTap::Message*> results;
            for (const BridgeTap::Message& message : connections[c].messages) {
                if (message.fromService && message.type == u"call") {
                    calls.append(&message);
                } else if (!message.fromService && message.type == u"result") {
                    results.append(&message);
                }
            }
            QVERIFY2(results.size() <= calls.size(),
                     qPrintable(QStringLiteral("connection %1: %2 results for %3 calls")
                                    .arg(c)
                                    .arg(results.size())
                                    .arg(calls.size())));
            for (qsizetype i = 0; i < results.size(); ++i) {
                QVERIFY2(results[i]->reqId == calls[i]->reqId,
                         qPrintable(QStringLiteral("connection %1, answer %2 is for %3, the "
                                                   "call delivered then was %4")
                                        .arg(c)
                                        .arg(i)
                                        .arg(results[i]->reqId, calls[i]->reqId)));
                QVERIFY(results[i]->at >= calls[i]->at);
            }
            // Calls left unanswered are the last ones of a connection that ended.
            const qsizetype unanswered = calls.size() - results.size();
            if (unanswered > 0) {
                QVERIFY2(connections[c].closedAt >= 0,
                         qPrintable(QStringLiteral("connection %1 is open with %2 calls "
                                                   "unanswered")
                                        .arg(c)
                                        .arg(unanswered)));
                QVERIFY(unanswered <= workers);
            }
            resultFrames += int(results.size());
            for (qsizetype i = 0; i < calls.size(); ++i) {
                const QJsonObject params =
                    calls[i]->object.value(QStringLiteral("params")).toObject();
                const int index = params.value(QStringLiteral("call_index")).toInt(-1);
                QVERIFY(index >= 0 && index < records.size());
                QVERIFY2(!deliveries.contains(index),
                         qPrintable(QStringLiteral("call %1 was delivered twice").arg(index)));
                QVERIFY2(!callOfReqId.contains(calls[i]->reqId),
                         qPrintable(QStringLiteral("req_id %1 used twice").arg(calls[i]->reqId)));
                callOfReqId.insert(calls[i]->reqId, index);
                Delivery delivery;
                delivery.connection = c;
                delivery.reqId = calls[i]->reqId;
                delivery.answered = i < results.size();
                if (delivery.answered) {
                    delivery.result = results[i]->payload;
                    delivery.answeredAtTheCut = connections[c].endedBy == u"service" &&
                                                results[i]->at >= connections[c].closedAt - cutMs;
                }
                deliveries.insert(index, delivery);
            }
        }

        // The times in which the service had no live bridge: from one connection's end to the
        // next greeting.
        QList<std::pair<qint64, qint64>> offline;
        qint64 lastEnd = -1;
        for (const BridgeTap::Connection& connection : connections) {
            if (connection.helloAt() < 0) {
                continue;
            }
            if (lastEnd >= 0) {
                offline.append({lastEnd, connection.helloAt()});
            }
            lastEnd = connection.closedAt;
        }
        auto during = [](const AgentLoad::Record& record,
                         const QList<std::pair<qint64, qint64>>& windows) {
            constexpr qint64 slack = 100;
            return std::any_of(windows.cbegin(), windows.cend(), [&](const auto& window) {
                return record.startedAt <= window.second + slack &&
                       record.finishedAt >= window.first - slack;
            });
        };

        const QString offlineError = QStringLiteral("Device %1 is offline.").arg(deviceId);
        const QString cutError =
            QStringLiteral("Device %1 disconnected before answering.").arg(deviceId);
        QHash<int, int> byStatus;
        int answeredOnWire = 0;
        int lostAtTheCut = 0;
        for (const AgentLoad::Record& record : records) {
            ++byStatus[record.status];
            const auto delivery = deliveries.constFind(record.index);
            const QJsonObject body = QJsonDocument::fromJson(record.body).object();
            const QString what = QStringLiteral("call %1 (%2): %3 %4")
                                     .arg(record.index)
                                     .arg(record.call.method)
                                     .arg(record.status)
                                     .arg(QString::fromUtf8(record.body.left(300)));
            switch (record.status) {
            case 200: {
                QVERIFY2(delivery != deliveries.constEnd() && delivery->answered, qPrintable(what));
                QCOMPARE(body.value(QStringLiteral("req_id")).toString(), delivery->reqId);
                // The service passes the companion's frame on byte for byte.
                QCOMPARE(record.body, delivery->result);
                QCOMPARE(body.value(QStringLiteral("type")).toString(), QStringLiteral("result"));
                QVERIFY2(body.value(QStringLiteral("ok")) == QJsonValue(true), qPrintable(what));
                const QString wrong =
                    wrongResult(record.index, body.value(QStringLiteral("result")).toObject());
                QVERIFY2(wrong.isEmpty(),
                         qPrintable(what + QStringLiteral(" answered with ") + wrong));
                ++answeredOnWire;
                break;
            }
            case 409:
                QCOMPARE(body, QJsonObject({{QStringLiteral("error"), offlineError}}));
                QVERIFY2(delivery == deliveries.constEnd(), qPrintable(what));
                QVERIFY2(during(record, offline),
                         qPrintable(what + QStringLiteral(" while online")));
                break;
            case 502:
                QCOMPARE(body, QJsonObject({{QStringLiteral("error"), cutError}}));
                QVERIFY2(delivery != deliveries.constEnd() &&
                             (!delivery->answered || delivery->answeredAtTheCut),
                         qPrintable(what));
                lostAtTheCut += delivery->answered ? 1 : 0;
                break;
            case 0:
                // The service was killed while the call waited, or was not there to take it.
                QVERIFY2(during(record, deadTimes), qPrintable(what));
                QVERIFY2(delivery == deliveries.constEnd() || !delivery->answered ||
                             delivery->answeredAtTheCut,
                         qPrintable(what));
                lostAtTheCut += delivery != deliveries.constEnd() && delivery->answered ? 1 : 0;
                break;
            default:
                QFAIL(qPrintable(what));
            }
        }
        // No answer on the wire went unclaimed: each was given to exactly one agent call.
        QCOMPARE(resultFrames, answeredOnWire + lostAtTheCut);
        qInfo("%lld calls: %d answered, %d offline (409), %d cut while waiting (502), %d with the "
              "service down (%d of those cut ones answered just as the service cut); %lld bridge "
              "connections",
              static_cast<long long>(records.size()), byStatus.value(200), byStatus.value(409),
              byStatus.value(502), byStatus.value(0), lostAtTheCut,
              static_cast<long long>(connections.size()));
    }

    void startLoad(int loadWorkers, int pauseMs) {
        load = std::make_unique<AgentLoad>(servicePort, deviceId, plannedCall);
        load->setWorkers(loadWorkers);
        load->setCallLimit(plannedCalls);
        load->setPauseAfterFailure(pauseMs);
        load->setTimeouts(20000, 30000);
        load->start();
    }

    void stopLoad() {
        load->stop();
        QVERIFY(EventWait::until([&] { return load->idle(); }, 40000));
        // Everything in flight has come back; the wire record is complete.
        EventWait::pause(200);
    }

    // Stops the calls and checks the whole run from both sides.
    void finishRun() {
        stopLoad();
        QVERIFY2(companion->isRunning(), qPrintable(companion->describe()));
        // Nothing went wrong that the companion or Qt would complain about.
        QCOMPARE(companion->process().standardError(), QByteArray());

        checkCompanionSide();
        checkServiceSide();
        checkCalls();
    }

private slots:
    void initTestCase() {
        QVERIFY(stateDir.isValid());
        QVERIFY(tree.isValid());
        for (int i = 0; i < plannedCalls; ++i) {
            const QString n = QString::number(i);
            switch (i % 3) {
            case 0:
                QVERIFY(
                    tree.file(QStringLiteral("Load/r/%1.txt").arg(n), "read " + n.toUtf8() + '\n'));
                break;
            case 1:
                QVERIFY(tree.file(QStringLiteral("Load/l/%1/m%1.txt").arg(n), "m"));
                break;
            default:
                QVERIFY(tree.file(QStringLiteral("Find/hit-%1.txt").arg(n), "hit"));
                break;
            }
        }

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
        const QString failure = companion->setUp(
            service->baseUrl(), service->pairingCode(),
            {tree.path(QStringLiteral("Find")), tree.path(QStringLiteral("Load"))}, false);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        const QJsonArray devices = http->get(QStringLiteral("/api/v1/agent/devices"))
                                       .json()
                                       .value(QStringLiteral("devices"))
                                       .toArray();
        QCOMPARE(devices.size(), 1);
        deviceId = devices[0].toObject().value(QStringLiteral("device_id")).toString();

        // The companion knows only the tap's address; the tap passes everything on.
        QVERIFY2(companion->start(apiBase(tapPort)), qPrintable(companion->describe()));
        greetedLine = companion->lines().indexOf(connected);
        QCOMPARE(companion->lines().mid(0, greetedLine),
                 (QStringList{QStringLiteral("Sharing 2 folders with %1").arg(apiBase(tapPort)),
                              QStringLiteral("File access: confined by the kernel"), connecting}));
    }

    void cleanupTestCase() {
        load.reset();
        if (companion) {
            if (companion->isRunning()) {
                QCOMPARE(companion->stop(), 0);
            }
            const QList<QByteArray> outputs = companion->outputs();
            for (const QByteArray& output : outputs) {
                for (const QString& token : service->deviceTokens()) {
                    QVERIFY(!output.contains(token.toUtf8()));
                }
            }
        }
        companion.reset();
        tap.reset();
        service.reset();
    }

    void loadThroughDropsRefusalsAndRestarts() {
        startLoad(workers, 150);

        runEpisode({QStringLiteral("drop"), {2}}, [&] { drop(0); });
        runEpisode({QStringLiteral("drop, refusing 4 s"), {2, 4}}, [&] { drop(4); });
        // Greeted in between: the count starts over.
        runEpisode({QStringLiteral("drop after a climb"), {2}}, [&] { drop(0); });
        runEpisode({QStringLiteral("kill, back after 0.5 s"), {2}, true},
                   [&] { killService(500); });
        runEpisode({QStringLiteral("kill, back after 4 s"), {2, 4}, true},
                   [&] { killService(4000); });
        runEpisode({QStringLiteral("kill after a climb"), {2}, true}, [&] { killService(500); });
        runEpisode({QStringLiteral("refuse 4 s, then drop"), {2, 4}}, [&] {
            refuse(4);
            drop(0);
        });
        runEpisode({QStringLiteral("drop, last"), {2}}, [&] { drop(0); });
        QVERIFY(!QTest::currentTestFailed());

        const int target = load->answered() + callsBetweenFaults;
        QVERIFY(EventWait::until([&] { return load->answered() >= target; }, 60000));
        finishRun();
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY(load->answered() >= 9 * callsBetweenFaults);
    }

    void backOffClimbsToTheCeilingAndStartsOverAfterHello() {
        // A few calls a second, to see them refused while offline and answered after.
        startLoad(2, 250);
        runEpisode({QStringLiteral("drop, refusing 33 s"), {2, 4, 8, 16, 30}}, [&] { drop(33); });
        runEpisode({QStringLiteral("drop after the ceiling"), {2}}, [&] { drop(0); });
        QVERIFY(!QTest::currentTestFailed());
        finishRun();
    }
};

QTEST_GUILESS_MAIN(ConnectionFaultsTest)
#include "tst_connectionfaults.moc"
