// Where the device token may be, and everywhere it must never show, end to end: the companion's
// own commands and --headless, the dev service, and the bridge between them through BridgeTap.
// The companion is paired, reconnects through refusals, drops, a dead service and a service that
// does not know its token, answers calls that fail, and is unpaired; then no output of any
// process, no argument list or environment of any process this test started (as /proc showed
// them while they ran), no answer an agent got and no frame on the bridge holds the token or
// either half of it. The token travels once per connection, in the bridge request's query.
//
// Run twice (see CMakeLists.txt): without a session bus, where the token is kept in a file of
// mode 0600 in a folder of mode 0700; and inside a private session with an unlocked
// gnome-keyring, where it goes to the Secret Service and no file holds it.

#include "BridgeTap.h"
#include "DevServiceProcess.h"
#include "EventWait.h"
#include "HttpJson.h"
#include "LoopbackPort.h"
#include "PairedCompanion.h"
#include "ProcessCensus.h"
#include "TempTree.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");

bool keyringSession() {
    return qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") == u"keyring";
}

unsigned modeOf(const QString& path) {
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 0;
}

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TokenExposureTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir serviceDir;
    ProcessCensus census;
    quint16 servicePort = 0;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<DevServiceProcess> stranger;
    std::unique_ptr<BridgeTap> tap;
    std::unique_ptr<HttpJson> agent;
    std::unique_ptr<PairedCompanion> companion;
    QString deviceId;
    QString token;
    // Every answer an agent got.
    QList<QByteArray> answers;

    QString tapBase() const { return QStringLiteral("http://127.0.0.1:%1").arg(tap->port()); }

    HttpJson::Reply post(const QString& path, const QJsonObject& body) {
        const HttpJson::Reply reply = agent->post(path, body);
        answers << reply.body;
        return reply;
    }

    QJsonObject call(const QString& method, const QJsonObject& params) {
        return post(QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
                    {{QStringLiteral("method"), method}, {QStringLiteral("params"), params}})
            .json();
    }

    // Waits for the companion's next greeting after line `from`.
    bool greetedAfter(qsizetype from, int timeoutMs) {
        return EventWait::until(
                   [&] {
                       return companion->lines().indexOf(connected, from) >= 0 ||
                              !companion->isRunning();
                   },
                   timeoutMs) &&
               companion->lines().indexOf(connected, from) >= 0;
    }

    // The places where `needle` shows in `haystack`, named for a failed check's message.
    static QStringList leaks(const QByteArray& haystack, const QString& what,
                             const QList<QByteArray>& needles) {
        QStringList found;
        for (const QByteArray& needle : needles) {
            if (haystack.contains(needle)) {
                found << what;
            }
        }
        return found;
    }

private slots:
    void initTestCase() {
        QVERIFY(serviceDir.isValid());
        tree.file(QStringLiteral("Docs/notes.txt"), "notes\n");
        companion = std::make_unique<PairedCompanion>(
            companionBin,
            keyringSession() ? CompanionSandbox::Bus::Inherited : CompanionSandbox::Bus::None);
        QVERIFY2(companion->isValid(), qPrintable(companion->problem()));
        if (keyringSession()) {
            // Only ever the private keyring of run_sandboxed.sh, never the user's.
            QVERIFY(qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"));
        }

        servicePort = LoopbackPort::pick();
        QVERIFY(servicePort != 0);
        service = std::make_unique<DevServiceProcess>(
            serviceBin, serviceDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(servicePort), qPrintable(service->describe()));
        agent = std::make_unique<HttpJson>(service->baseUrl());
        tap = std::make_unique<BridgeTap>(servicePort);
        QVERIFY(tap->listen(LoopbackPort::pick()));
    }

    void cleanupTestCase() {
        companion.reset();
        stranger.reset();
        service.reset();
    }

    void pairingKeepsTheTokenPrivate() {
        // A refused code first: its error text is one more place to look.
        CommandRun run = companion->command({QStringLiteral("pair"), QStringLiteral("ZZZZ9999")},
                                            service->baseUrl());
        QCOMPARE(run.exitCode, 1);
        const QString failure = companion->setUp(service->baseUrl(), service->pairingCode(),
                                                 {tree.path(QStringLiteral("Docs"))}, false);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QCOMPARE(service->deviceTokens().size(), 1);
        token = service->deviceTokens().front();
        QVERIFY(token.size() >= 32);
        deviceId = agent->get(QStringLiteral("/api/v1/agent/devices"))
                       .json()
                       .value(QStringLiteral("devices"))
                       .toArray()
                       .at(0)
                       .toObject()
                       .value(QStringLiteral("device_id"))
                       .toString();
        QVERIFY(!deviceId.isEmpty());

        const QString file = companion->sandbox().tokenFile();
        if (keyringSession()) {
            QVERIFY2(!QFileInfo::exists(file),
                     "the token went to a file beside the secret service");
        } else {
            QCOMPARE(modeOf(file), 0600u);
            QCOMPARE(modeOf(QFileInfo(file).path()), 0700u);
            QCOMPARE(QString::fromUtf8(fileBytes(file)), token);
        }
        // Nowhere else in the companion's home: not in its settings, no copy, no leftover.
        QStringList holders;
        QDirIterator it(companion->sandbox().root(), QDir::Files | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            if (fileBytes(path).contains(token.toUtf8())) {
                holders << path;
            }
        }
        QCOMPARE(holders, keyringSession() ? QStringList() : QStringList{file});
    }

    void theTokenTravelsOnlyInTheBridgeRequest() {
        QVERIFY2(companion->start(tapBase()), qPrintable(companion->describe()));
        QVERIFY(EventWait::until([&] { return tap->openConnections() == 1; }, 5000));
        const BridgeTap::Connection& bridge = tap->connections().constLast();
        QCOMPARE(bridge.status, 101);
        const QList<QByteArray> head = bridge.requestHead.split('\n');
        QCOMPARE(head.front().trimmed(),
                 "GET /api/v1/devices/bridge?token=" + token.toUtf8() + " HTTP/1.1");
        for (qsizetype i = 1; i < head.size(); ++i) {
            QVERIFY2(!head[i].contains(token.toUtf8()), head[i].constData());
        }
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}})
                     .value(QStringLiteral("result"))
                     .toObject()
                     .value(QStringLiteral("content"))
                     .toString(),
                 QStringLiteral("notes\n"));
    }

    void failuresOnTheWayDoNotPrintIt() {
        // Refused (503), dropped, the service gone (a closed port), then a service that does not
        // know the token (401); and back with the right one.
        qsizetype from = companion->lines().size();
        QCOMPARE(post(QStringLiteral("/api/v1/agent/devices/%1/drop").arg(deviceId),
                      {{QStringLiteral("refuse_seconds"), 3}})
                     .status,
                 200);
        QVERIFY2(greetedAfter(from, 20000), qPrintable(companion->describe()));
        QVERIFY(companion->lines().contains(QStringLiteral("Reconnecting in 4s\u2026")));

        from = companion->lines().size();
        service->stop();
        tap->stopListening();
        stranger = std::make_unique<DevServiceProcess>(
            serviceBin, serviceDir.filePath(QStringLiteral("empty.json")));
        QVERIFY2(stranger->start(servicePort), qPrintable(stranger->describe()));
        QVERIFY(tap->listen(tap->port()));
        // Its first attempt meets the stranger and is refused with 401.
        QVERIFY(EventWait::until(
            [&] {
                return companion->lines().indexOf(QStringLiteral("Reconnecting in 4s\u2026"),
                                                  from) >= 0;
            },
            10000));
        QCOMPARE(tap->connections().constLast().status, 401);
        stranger->stop();
        QVERIFY2(service->start(servicePort), qPrintable(service->describe()));
        QVERIFY2(greetedAfter(from, 20000), qPrintable(companion->describe()));

        // Calls that fail, each with an error text.
        for (const QJsonObject& params :
             {QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/../../etc/passwd")}},
              QJsonObject{{QStringLiteral("path"), QStringLiteral("Nope/x")}},
              QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/missing.txt")}},
              QJsonObject()}) {
            const QJsonObject frame = call(QStringLiteral("local_read_file"), params);
            QCOMPARE(frame.value(QStringLiteral("ok")), QJsonValue(false));
        }
        QCOMPARE(call(QStringLiteral("local_erase_everything"), {})
                     .value(QStringLiteral("error"))
                     .toString(),
                 QStringLiteral("Unknown method: local_erase_everything"));
        QCOMPARE(companion->command({QStringLiteral("status")}, tapBase()).exitCode, 0);
        QCOMPARE(companion->command({QStringLiteral("folders")}, tapBase()).exitCode, 0);
        QCOMPARE(companion->stop(), 0);
    }

    void unpairingForgetsIt() {
        CommandRun run = companion->command({QStringLiteral("unpair")}, service->baseUrl());
        QCOMPARE(run.exitCode, 0);
        QVERIFY(!QFileInfo::exists(companion->sandbox().tokenFile()));
        // Nothing left to connect with.
        QVERIFY(!companion->start(tapBase()));
        QCOMPARE(companion->process().waitForExit(), 1);
        QVERIFY(companion->process().standardError().contains("not paired"));
        QCOMPARE(companion->stop(), 1);
        run = companion->command({QStringLiteral("status")}, service->baseUrl());
        QVERIFY(run.out.startsWith("Paired: no\n"));
    }

    void theTokenNeverShows() {
        QVERIFY2(!token.isEmpty(), "nothing to look for: pairing did not run");
        census.look();
        const QByteArray whole = token.toUtf8();
        const QList<QByteArray> needles{whole, whole.left(whole.size() / 2),
                                        whole.mid(whole.size() / 2)};
        QStringList found;

        const QList<QByteArray> outputs = companion->outputs();
        for (qsizetype i = 0; i < outputs.size(); ++i) {
            found += leaks(outputs[i], QStringLiteral("companion output %1").arg(i), needles);
        }
        for (const QStringList& arguments : companion->argumentLists()) {
            found += leaks(arguments.join(u' ').toUtf8(), arguments.join(u' '), needles);
        }
        found += leaks(service->allOutput(), QStringLiteral("service output"), needles);
        if (stranger) {
            found += leaks(stranger->allOutput(), QStringLiteral("second service output"), needles);
        }
        for (const QByteArray& answer : std::as_const(answers)) {
            found +=
                leaks(answer, QStringLiteral("agent answer ") + QString::fromUtf8(answer), needles);
        }
        qsizetype frames = 0;
        for (const BridgeTap::Connection& connection : tap->connections()) {
            for (const BridgeTap::Message& message : connection.messages) {
                found += leaks(message.payload, QStringLiteral("bridge frame"), needles);
                ++frames;
            }
        }
        QStringList seen;
        for (const ProcessCensus::Sighting& sighting : census.sightings()) {
            const QString name = QString::fromUtf8(sighting.commandLine).replace(u'\0', u' ');
            found += leaks(sighting.commandLine, QStringLiteral("arguments of ") + name, needles);
            found += leaks(sighting.environment, QStringLiteral("environment of ") + name, needles);
            seen << QFileInfo(name.section(u' ', 0, 0)).fileName() + u' ' +
                        name.section(u' ', 1, 1);
        }
        QVERIFY2(found.isEmpty(), qPrintable(found.join(u'\n')));

        // The census did see the processes it vouches for: the companion's headless runs and
        // commands, and the services.
        seen.removeDuplicates();
        qInfo("no token in %lld outputs, %lld answers, %lld bridge frames, %lld process "
              "sightings: %s",
              static_cast<long long>(outputs.size()), static_cast<long long>(answers.size()),
              static_cast<long long>(frames), static_cast<long long>(census.sightings().size()),
              qPrintable(seen.join(QStringLiteral(", "))));
        QVERIFY(seen.contains(QStringLiteral("quillmar-companion --headless")));
        QVERIFY(seen.contains(QStringLiteral("quillmar-companion pair")));
        QVERIFY(seen.contains(QStringLiteral("quillmar-devservice --port")));
    }
};

QTEST_GUILESS_MAIN(TokenExposureTest)
#include "tst_tokenexposure.moc"
