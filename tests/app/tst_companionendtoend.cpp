// The companion as a user runs it, against the dev service: pairing with a code, sharing
// folders, the headless companion answering an agent's calls, a restart with the stored token,
// unpairing, and writes refused when nobody is there to approve them. Every companion process
// runs in a throwaway home. Run once without a session bus (the token goes to the file) and
// once inside a private session with gnome-keyring (the token goes to the Secret Service).

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "DevServiceProcess.h"
#include "HttpJson.h"
#include "LineProcess.h"
#include "TempTree.h"

#include <QDir>
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
const QString connected = QStringLiteral("Connected to Quillmar");
const QString invalidCode =
    QStringLiteral("That code is invalid or expired. Generate a fresh one in the web app.");
const QString declined = QStringLiteral("Write was declined on the user's computer.");

bool keyringSession() {
    return qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") == u"keyring";
}

unsigned modeOf(const QString& path) {
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0) {
        return 0;
    }
    return info.st_mode & 07777;
}

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

class CompanionEndToEndTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir serviceDir;
    std::unique_ptr<CompanionSandbox> sandbox;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<HttpJson> agent;
    std::unique_ptr<LineProcess> headless;
    QString deviceId;
    // Everything any process printed, and every argument list, for the final check.
    QList<QByteArray> outputs;
    QList<QStringList> argumentLists;

    CommandRun companion(const QStringList& arguments) {
        const CommandRun r = CommandRun::run(companionBin, arguments, sandbox->environment());
        outputs << r.out << r.err;
        argumentLists << arguments;
        return r;
    }

    bool startHeadless() {
        stopHeadless();
        headless = std::make_unique<LineProcess>();
        const QStringList arguments{QStringLiteral("--headless")};
        argumentLists << arguments;
        headless->start(companionBin, arguments, sandbox->environment());
        return headless->waitFor(connected) >= 0;
    }

    int stopHeadless() {
        if (!headless) {
            return 0;
        }
        const int status = headless->terminate();
        outputs << headless->allOutput();
        return status;
    }

    QString freshCode() {
        const HttpJson::Reply reply =
            agent->post(QStringLiteral("/api/v1/agent/pairing-codes"), QJsonObject());
        return reply.status == 201 ? reply.json().value(QStringLiteral("code")).toString()
                                   : QString();
    }

    QJsonArray devices() {
        return agent->get(QStringLiteral("/api/v1/agent/devices"))
            .json()
            .value(QStringLiteral("devices"))
            .toArray();
    }

    // The result frame of one call through the agent API.
    QJsonObject call(const QString& method, const QJsonObject& params) {
        const HttpJson::Reply reply = agent->post(
            QStringLiteral("/api/v1/agent/devices/%1/calls").arg(deviceId),
            QJsonObject{{QStringLiteral("method"), method}, {QStringLiteral("params"), params}});
        if (reply.status != 200) {
            qWarning() << "call answered" << reply.status << reply.body;
            return {};
        }
        QJsonObject frame = reply.json();
        if (frame.value(QStringLiteral("type")).toString() != u"result" ||
            frame.value(QStringLiteral("req_id")).toString().isEmpty()) {
            qWarning() << "not a result frame:" << reply.body;
            return {};
        }
        frame.remove(QStringLiteral("type"));
        frame.remove(QStringLiteral("req_id"));
        return frame;
    }

    QJsonObject resultOf(const QString& method, const QJsonObject& params) {
        const QJsonObject frame = call(method, params);
        if (frame.value(QStringLiteral("ok")) != QJsonValue(true)) {
            qWarning() << "call failed:" << frame;
            return {};
        }
        return frame.value(QStringLiteral("result")).toObject();
    }

    // Where the token is kept depends on the session: the Secret Service when there is one,
    // otherwise a private file.
    void checkTokenStorage() {
        const QString file = sandbox->tokenFile();
        if (keyringSession()) {
            QVERIFY2(!QFile::exists(file), "the token went to a file beside the secret service");
            return;
        }
        QVERIFY(QFile::exists(file));
        QCOMPARE(modeOf(file), 0600u);
        QCOMPARE(modeOf(QFileInfo(file).path()), 0700u);
        QCOMPARE(QString::fromUtf8(fileBytes(file)), service->deviceTokens().constLast());
    }

private slots:
    void initTestCase() {
        if (keyringSession()) {
            // Only ever against the private keyring of run_sandboxed.sh, never the user's.
            QVERIFY(qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"));
            sandbox = std::make_unique<CompanionSandbox>(CompanionSandbox::Bus::Inherited);
        } else {
            sandbox = std::make_unique<CompanionSandbox>(CompanionSandbox::Bus::None);
        }
        QVERIFY(sandbox->isValid());
        QVERIFY(serviceDir.isValid());

        tree.file(QStringLiteral("Docs/notes.txt"), "first line\nsecond line\n");
        tree.file(QStringLiteral("Docs/reports/q1.md"), "q1");
        tree.file(QStringLiteral("Docs/reports/q2.md"), "q2");
        tree.file(QStringLiteral("Pics/a.png"), "png");

        service =
            std::make_unique<DevServiceProcess>(QStringLiteral(QUILLMAR_DEVSERVICE_BIN),
                                                serviceDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        agent = std::make_unique<HttpJson>(service->baseUrl());
        sandbox->setApiBase(service->baseUrl());
    }

    void cleanupTestCase() {
        if (headless) {
            headless->kill();
        }
        if (service) {
            service->stop();
        }
    }

    void badCodesAreRefused() {
        // Never issued, and issued but already expired: both the same text, nothing stored.
        const HttpJson::Reply expired =
            agent->post(QStringLiteral("/api/v1/agent/pairing-codes"),
                        QJsonObject{{QStringLiteral("ttl_seconds"), 0}});
        QCOMPARE(expired.status, 201);
        for (const QString& code : {QStringLiteral("ZZZZ9999"),
                                    expired.json().value(QStringLiteral("code")).toString()}) {
            const CommandRun r = companion({QStringLiteral("pair"), code});
            QCOMPARE(r.exitCode, 1);
            QCOMPARE(r.out, QByteArray());
            QCOMPARE(QString::fromUtf8(r.err), invalidCode + u'\n');
        }
        QVERIFY(!QFile::exists(sandbox->tokenFile()));
        QVERIFY(companion({QStringLiteral("status")}).out.startsWith("Paired: no\n"));
        QVERIFY(devices().isEmpty());
    }

    void pairsWithACodeFromTheService() {
        const QString code = freshCode();
        QCOMPARE(code.size(), 8);
        // Typed loosely: blanks around it and in lower case.
        const CommandRun r =
            companion({QStringLiteral("pair"), QStringLiteral("  %1\n").arg(code.toLower())});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        QCOMPARE(QString::fromUtf8(r.out),
                 QStringLiteral("Paired with %1\n").arg(service->baseUrl()));

        const QJsonArray list = devices();
        QCOMPARE(list.size(), 1);
        const QJsonObject device = list[0].toObject();
        QCOMPARE(device.value(QStringLiteral("platform")).toString(), QStringLiteral("linux"));
        QVERIFY(!device.value(QStringLiteral("device_name")).toString().isEmpty());
        QCOMPARE(device.value(QStringLiteral("online")), QJsonValue(false));
        deviceId = device.value(QStringLiteral("device_id")).toString();
        QVERIFY(!deviceId.isEmpty());
        QCOMPARE(service->deviceTokens().size(), 1);

        checkTokenStorage();
        QVERIFY(companion({QStringLiteral("status")}).out.startsWith("Paired: yes\n"));
        // A spent code does not pair again.
        QCOMPARE(companion({QStringLiteral("pair"), code}).exitCode, 1);
    }

    void sharesFoldersAndTurnsApprovalOff() {
        CommandRun r = companion(
            {QStringLiteral("folders"), QStringLiteral("add"), tree.path(QStringLiteral("Docs"))});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Docs\n"));
        r = companion(
            {QStringLiteral("folders"), QStringLiteral("add"), tree.path(QStringLiteral("Pics"))});
        QCOMPARE(r.out, QByteArray("Pics\n"));
        r = companion({QStringLiteral("approval"), QStringLiteral("off")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Ask before writing files: off\n"));
    }

    void headlessConnects() {
        QVERIFY2(startHeadless(), qPrintable(headless->describe()));
        const QStringList lines = headless->lines();
        QCOMPARE(lines.first(),
                 QStringLiteral("Sharing 2 folders with %1").arg(service->baseUrl()));
        QCOMPARE(lines.mid(1), (QStringList{QStringLiteral("File access: confined by the kernel"),
                                            QStringLiteral("Connecting\u2026"), connected}));
        QTRY_COMPARE(devices().at(0).toObject().value(QStringLiteral("online")), QJsonValue(true));
    }

    void agentListsReadsSearchesAndWrites() {
        QJsonObject result = resultOf(QStringLiteral("local_list_files"), {});
        QCOMPARE(result.value(QStringLiteral("count")).toInteger(), 2);
        const QJsonArray items = result.value(QStringLiteral("items")).toArray();
        QCOMPARE(items[0].toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Docs"));
        QCOMPARE(items[1].toObject().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Pics"));

        result = resultOf(QStringLiteral("local_list_files"),
                          {{QStringLiteral("path"), QStringLiteral("Docs/reports")}});
        QCOMPARE(result.value(QStringLiteral("count")).toInteger(), 2);

        result = resultOf(QStringLiteral("local_read_file"),
                          {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}});
        QCOMPARE(result.value(QStringLiteral("content")).toString(),
                 QStringLiteral("first line\nsecond line\n"));
        QCOMPARE(result.value(QStringLiteral("truncated")), QJsonValue(false));

        result = resultOf(QStringLiteral("local_search_files"),
                          {{QStringLiteral("query"), QStringLiteral("*.md")}});
        // In the order the folder is walked; compared as a set.
        QStringList matches;
        for (const QJsonValue& match : result.value(QStringLiteral("matches")).toArray()) {
            matches.append(match.toString());
        }
        matches.sort();
        QCOMPARE(matches, (QStringList{QStringLiteral("Docs/reports/q1.md"),
                                       QStringLiteral("Docs/reports/q2.md")}));
        QCOMPARE(result.value(QStringLiteral("count")).toInteger(), 2);

        const QJsonObject failed = call(QStringLiteral("local_read_file"),
                                        {{QStringLiteral("path"), QStringLiteral("Docs/../../x")}});
        QCOMPARE(failed.value(QStringLiteral("ok")), QJsonValue(false));
        QVERIFY(!failed.value(QStringLiteral("error")).toString().isEmpty());

        // Approval is off: the write goes through, into a folder made on the way.
        result = resultOf(QStringLiteral("local_write_file"),
                          {{QStringLiteral("path"), QStringLiteral("Docs/out/new.txt")},
                           {QStringLiteral("content"), QStringLiteral("h\u00e9llo")}});
        QCOMPARE(result, (QJsonObject{{QStringLiteral("success"), true},
                                      {QStringLiteral("path"), QStringLiteral("Docs/out/new.txt")},
                                      {QStringLiteral("bytes"), 6}}));
        QCOMPARE(fileBytes(tree.path(QStringLiteral("Docs/out/new.txt"))),
                 QByteArray("h\xc3\xa9llo"));

        result = resultOf(QStringLiteral("local_write_file"),
                          {{QStringLiteral("path"), QStringLiteral("Pics/b.bin")},
                           {QStringLiteral("content_base64"), QStringLiteral("AAEC")}});
        QCOMPARE(result.value(QStringLiteral("bytes")).toInteger(), 3);
        QCOMPARE(fileBytes(tree.path(QStringLiteral("Pics/b.bin"))), QByteArray("\x00\x01\x02", 3));
    }

    void restartReconnectsWithTheStoredToken() {
        QCOMPARE(stopHeadless(), 0);
        QCOMPARE(headless->lines().constLast(), QStringLiteral("Stopped"));
        QTRY_COMPARE(devices().at(0).toObject().value(QStringLiteral("online")), QJsonValue(false));

        QVERIFY2(startHeadless(), qPrintable(headless->describe()));
        const QJsonObject result =
            resultOf(QStringLiteral("local_read_file"),
                     {{QStringLiteral("path"), QStringLiteral("Docs/reports/q2.md")}});
        QCOMPARE(result.value(QStringLiteral("content")).toString(), QStringLiteral("q2"));
        // Still the one device: nothing was paired again.
        QCOMPARE(devices().size(), 1);
        QCOMPARE(service->deviceTokens().size(), 1);
        checkTokenStorage();
    }

    void unpairKeepsFoldersAndStopsTheCompanion() {
        QCOMPARE(stopHeadless(), 0);
        CommandRun r = companion({QStringLiteral("unpair")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Unpaired\n"));
        QVERIFY(!QFile::exists(sandbox->tokenFile()));

        headless = std::make_unique<LineProcess>();
        argumentLists << QStringList{QStringLiteral("--headless")};
        headless->start(companionBin, {QStringLiteral("--headless")}, sandbox->environment());
        QCOMPARE(headless->waitForExit(), 1);
        QVERIFY(headless->lines().isEmpty());
        const QByteArray refusal = headless->standardError();
        QCOMPARE(refusal.count('\n'), 1);
        QVERIFY2(refusal.contains("not paired"), refusal.constData());
        outputs << headless->allOutput();
        QTRY_COMPARE(devices().at(0).toObject().value(QStringLiteral("online")), QJsonValue(false));

        r = companion({QStringLiteral("status")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(QString::fromUtf8(r.out),
                 QStringLiteral("Paired: no\n"
                                "Running: no\n"
                                "API: %1\n"
                                "Ask before writing files: off\n"
                                "File access: confined by the kernel\n"
                                "Shared folders: 2\n"
                                "  Docs\t%2\tread-write\n"
                                "  Pics\t%3\tread-write\n")
                     .arg(service->baseUrl(), tree.path(QStringLiteral("Docs")),
                          tree.path(QStringLiteral("Pics"))));
    }

    void writesAreRefusedWithoutSomeoneToAsk() {
        // Paired again, the same folders are shared at once.
        CommandRun r = companion({QStringLiteral("pair"), freshCode()});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(devices().size(), 2);
        deviceId = devices().at(1).toObject().value(QStringLiteral("device_id")).toString();
        checkTokenStorage();
        QCOMPARE(companion({QStringLiteral("approval"), QStringLiteral("on")}).exitCode, 0);

        QVERIFY2(startHeadless(), qPrintable(headless->describe()));
        // Told once, up front, that writes will be refused.
        QVERIFY(headless->lines().first().contains(QStringLiteral("approval off")));
        QCOMPARE(headless->lines()[1],
                 QStringLiteral("Sharing 2 folders with %1").arg(service->baseUrl()));

        const QString notes = tree.path(QStringLiteral("Docs/notes.txt"));
        const QByteArray before = fileBytes(notes);
        const QDateTime modified = QFileInfo(notes).lastModified();
        for (const QString& path :
             {QStringLiteral("Docs/notes.txt"), QStringLiteral("Docs/fresh/new.txt")}) {
            const QJsonObject frame = call(
                QStringLiteral("local_write_file"),
                {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("x")}});
            QCOMPARE(frame, (QJsonObject{{QStringLiteral("ok"), false},
                                         {QStringLiteral("error"), declined}}));
        }
        QCOMPARE(fileBytes(notes), before);
        QCOMPARE(QFileInfo(notes).lastModified(), modified);
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("Docs/fresh"))));

        // Reading still works.
        QCOMPARE(resultOf(QStringLiteral("local_read_file"),
                          {{QStringLiteral("path"), QStringLiteral("Pics/a.png")}})
                     .value(QStringLiteral("content"))
                     .toString(),
                 QStringLiteral("png"));
        QCOMPARE(stopHeadless(), 0);
    }

    void tokensNeverShow() {
        const QStringList tokens = service->deviceTokens();
        QCOMPARE(tokens.size(), 2);
        outputs << service->allOutput() << fileBytes(sandbox->settingsFile());
        QVERIFY(outputs.size() > 20);
        for (const QString& token : tokens) {
            QVERIFY(token.size() >= 16);
            for (const QByteArray& output : std::as_const(outputs)) {
                QVERIFY(!output.contains(token.toUtf8()));
            }
            for (const QStringList& arguments : std::as_const(argumentLists)) {
                QVERIFY(!arguments.join(u' ').contains(token));
            }
        }
    }
};

QTEST_GUILESS_MAIN(CompanionEndToEndTest)
#include "tst_companionendtoend.moc"
