// What an agent can send that no well-behaved one would, end to end: quillmar-devservice and
// quillmar-companion --headless as real processes, the bridge passing through BridgeTap so that
// every frame the companion sends back is seen. Oversized and deeply nested frames, binary
// frames, FIFOs and devices where files are expected, a file that grows while it is read,
// symbolic link loops, and writes that the system refuses: no permission, a read-only file
// system, a file size limit, a full disk. In every case the companion answers with its usual
// error or a plain one (or, for a frame it cannot read, not at all), keeps running, answers the
// next call, and nothing outside its shared folders changes.

#include "BridgeTap.h"
#include "DevServiceProcess.h"
#include "EventWait.h"
#include "HttpJson.h"
#include "PairedCompanion.h"
#include "ProcessCensus.h"
#include "TempTree.h"
#include "TreeSnapshot.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QByteArray notes = "first line\nsecond line\n";

constexpr qsizetype thirtyMegabytes = 30 * 1000 * 1000;
// A call that carries tens of megabytes both ways is given time; everything else is quick.
constexpr int bigCallMs = 120000;

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// `depth` arrays inside each other: [[[...]]].
QByteArray nested(int depth) {
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

QJsonObject errorOnly(const QString& message) {
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}};
}

} // namespace

class BadInputTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QTemporaryDir stateDir;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<BridgeTap> tap;
    std::unique_ptr<HttpJson> http;
    std::unique_ptr<PairedCompanion> companion;
    QString deviceId;
    TreeSnapshot before;
    QStringList mounts;

    QString deviceOf(qsizetype index) {
        return http->get(QStringLiteral("/api/v1/agent/devices"))
            .json()
            .value(QStringLiteral("devices"))
            .toArray()
            .at(index)
            .toObject()
            .value(QStringLiteral("device_id"))
            .toString();
    }

    // One call through the agent API; the device's frame without `type` and `req_id`, or
    // {"status": N, "body": ...} when the service answered something else.
    QJsonObject call(const QString& method, const QJsonObject& params, const QString& device = {},
                     int timeoutMs = 15000) {
        const QJsonObject body{{QStringLiteral("method"), method},
                               {QStringLiteral("params"), params},
                               {QStringLiteral("timeout_ms"), timeoutMs}};
        return callWith(compact(body), device, timeoutMs);
    }

    QJsonObject callWith(const QByteArray& body, const QString& device = {},
                         int timeoutMs = 15000) {
        const HttpJson::Reply reply = http->post(QStringLiteral("/api/v1/agent/devices/%1/calls")
                                                     .arg(device.isEmpty() ? deviceId : device),
                                                 body, timeoutMs + 5000);
        QJsonObject frame = reply.json();
        if (reply.status != 200 || frame.value(QStringLiteral("type")).toString() != u"result" ||
            frame.value(QStringLiteral("req_id")).toString().isEmpty()) {
            return {{QStringLiteral("status"), reply.status},
                    {QStringLiteral("body"), QString::fromUtf8(reply.body.left(500))}};
        }
        frame.remove(QStringLiteral("type"));
        frame.remove(QStringLiteral("req_id"));
        return frame;
    }

    QJsonObject result(const QJsonObject& frame) {
        return frame.value(QStringLiteral("ok")) == QJsonValue(true)
                   ? frame.value(QStringLiteral("result")).toObject()
                   : QJsonObject();
    }

    // Sends `bytes` to the companion as one raw WebSocket message.
    void sendRaw(const QByteArray& bytes, bool binary) {
        const HttpJson::Reply reply = http->post(
            QStringLiteral("/api/v1/agent/devices/%1/raw?frame=%2")
                .arg(deviceId, binary ? QStringLiteral("binary") : QStringLiteral("text")),
            bytes);
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json().value(QStringLiteral("bytes")).toInteger(), bytes.size());
    }

    // The companion's live connection in the tap's record.
    const BridgeTap::Connection* live() const {
        const QList<BridgeTap::Connection>& connections = tap->connections();
        for (qsizetype i = connections.size() - 1; i >= 0; --i) {
            if (connections[i].closedAt < 0 && connections[i].helloAt() >= 0) {
                return &connections[i];
            }
        }
        return nullptr;
    }

    // What the companion sent on its live connection from message `from` on, pings left out.
    QList<BridgeTap::Message> sentSince(qsizetype from) const {
        QList<BridgeTap::Message> sent;
        const BridgeTap::Connection* connection = live();
        for (qsizetype i = from; connection && i < connection->messages.size(); ++i) {
            const BridgeTap::Message& message = connection->messages[i];
            if (!message.fromService && message.type != u"ping") {
                sent.append(message);
            }
        }
        return sent;
    }

    // The next ordinary call is answered as ever: the companion is alive and not wedged.
    void checkStillAnswering(const QString& device = {}) {
        const QJsonObject frame =
            call(QStringLiteral("local_read_file"),
                 {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}}, device);
        QCOMPARE(result(frame).value(QStringLiteral("content")).toString(),
                 QString::fromUtf8(notes));
    }

    bool mountTmpfs(const QString& path, const char* options) {
        if (::mount("tmpfs", QFile::encodeName(path).constData(), "tmpfs", 0, options) != 0) {
            return false;
        }
        mounts.prepend(path);
        return true;
    }

    bool mountReadOnlyBind(const QString& path) {
        const QByteArray native = QFile::encodeName(path);
        if (::mount(native.constData(), native.constData(), nullptr, MS_BIND, nullptr) != 0) {
            return false;
        }
        mounts.prepend(path);
        return ::mount(nullptr, native.constData(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
                       nullptr) == 0;
    }

    // A folder for a companion that file permissions apply to: as root one that runs as nobody,
    // otherwise one that runs as the test's own user.
    void preparePermissions() {
        const bool root = ::geteuid() == 0;
        const uid_t them = root ? 65534 : ::geteuid();
        const auto owner = [&](const QString& relative, uid_t uid) {
            QCOMPARE(::lchown(QFile::encodeName(tree.path(relative)).constData(), uid, uid), 0);
        };
        tree.file(QStringLiteral("Perm/notes.txt"), notes);
        tree.file(QStringLiteral("Perm/open/match-open.txt"), "open");
        tree.file(QStringLiteral("Perm/locked/match-locked.txt"), "locked");
        tree.file(QStringLiteral("Perm/secret.txt"), "secret");
        tree.file(QStringLiteral("Perm/ro/existing.txt"), "existing");
        tree.file(QStringLiteral("Perm/rofile.txt"), "read only");
        tree.chmod(QString(), 0755);
        tree.chmod(QStringLiteral("Perm"), 0755);
        for (const QString& relative :
             {QStringLiteral("Perm"), QStringLiteral("Perm/notes.txt"), QStringLiteral("Perm/open"),
              QStringLiteral("Perm/open/match-open.txt"), QStringLiteral("Perm/rofile.txt")}) {
            owner(relative, them);
        }
        tree.chmod(QStringLiteral("Perm/open"), 0755);
        tree.chmod(QStringLiteral("Perm/locked"), 0700);
        tree.chmod(QStringLiteral("Perm/secret.txt"), 0600);
        tree.chmod(QStringLiteral("Perm/ro"), 0555);
        tree.chmod(QStringLiteral("Perm/rofile.txt"), 0444);
        tree.chmod(QStringLiteral("Perm/ro/existing.txt"), 0444);
        if (!root) {
            tree.chmod(QStringLiteral("Perm/locked"), 0000);
            tree.chmod(QStringLiteral("Perm/secret.txt"), 0000);
        }
    }

private slots:
    void initTestCase() {
        QVERIFY(stateDir.isValid());
        tree.file(QStringLiteral("Docs/notes.txt"), notes);
        tree.file(QStringLiteral("Docs/caf\u00e9.txt"), "caf\xc3\xa9\n");
        // Siblings that must never change, one of them named like the shared folder.
        tree.file(QStringLiteral("Outside/keep.txt"), "keep");
        tree.file(QStringLiteral("Outside/sub/deep.txt"), "deep");
        tree.file(QStringLiteral("Docs-old/notes.txt"), "old");
        preparePermissions();

        service = std::make_unique<DevServiceProcess>(
            serviceBin, stateDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        http = std::make_unique<HttpJson>(service->baseUrl());
        tap = std::make_unique<BridgeTap>(service->port());
        QVERIFY(tap->listen(0));

        companion = std::make_unique<PairedCompanion>(companionBin);
        QVERIFY2(companion->isValid(), qPrintable(companion->problem()));
        const QString failure = companion->setUp(service->baseUrl(), service->pairingCode(),
                                                 {tree.path(QStringLiteral("Docs"))}, false);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        deviceId = deviceOf(0);
        QVERIFY(!deviceId.isEmpty());
        QVERIFY2(companion->start(QStringLiteral("http://127.0.0.1:%1").arg(tap->port())),
                 qPrintable(companion->describe()));
        QVERIFY(EventWait::until([&] { return live() != nullptr; }, 5000));
    }

    void init() {
        before = TreeSnapshot::of(tree.path(), {QStringLiteral("Docs"), QStringLiteral("Perm")});
    }

    void cleanup() {
        for (const QString& path : std::as_const(mounts)) {
            QVERIFY2(::umount2(QFile::encodeName(path).constData(), MNT_DETACH) == 0,
                     qPrintable(path));
        }
        mounts.clear();
        QVERIFY2(companion->isRunning(), qPrintable(companion->describe()));
        checkStillAnswering();
        const TreeSnapshot after =
            TreeSnapshot::of(tree.path(), {QStringLiteral("Docs"), QStringLiteral("Perm")});
        QVERIFY2(after == before, qPrintable(before.differences(after)));
        QVERIFY(after.size() >= 6);
    }

    void cleanupTestCase() {
        if (companion) {
            // Nothing of all this made the companion, or Qt under it, complain.
            QCOMPARE(companion->process().standardError(), QByteArray());
            QCOMPARE(companion->stop(), 0);
        }
    }

    void oversizedParams() {
        // 30 MB of padding beside the path: the call is read and answered as ever.
        const QString padding(thirtyMegabytes, u'x');
        QJsonObject frame = call(QStringLiteral("local_read_file"),
                                 {{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")},
                                  {QStringLiteral("padding"), padding}},
                                 {}, bigCallMs);
        QCOMPARE(frame, (QJsonObject{
                            {QStringLiteral("ok"), true},
                            {QStringLiteral("result"),
                             QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")},
                                         {QStringLiteral("content"), QString::fromUtf8(notes)},
                                         {QStringLiteral("truncated"), false}}}}));

        // A 30 MB query finds nothing and comes back whole; a 30 MB path is not found.
        const QString query(thirtyMegabytes, u'q');
        frame = call(QStringLiteral("local_search_files"), {{QStringLiteral("query"), query}}, {},
                     bigCallMs);
        QCOMPARE(result(frame).value(QStringLiteral("count")).toInteger(), 0);
        QCOMPARE(result(frame).value(QStringLiteral("query")).toString().size(), thirtyMegabytes);

        const QString path = QStringLiteral("Docs/") + QString(thirtyMegabytes, u'p');
        frame = call(QStringLiteral("local_read_file"), {{QStringLiteral("path"), path}}, {},
                     bigCallMs);
        QCOMPARE(frame, errorOnly(QStringLiteral("File not found: ") + path));

        // The same through a write: the name is too long for the file system to take.
        frame =
            call(QStringLiteral("local_write_file"),
                 {{QStringLiteral("path"), path}, {QStringLiteral("content"), QStringLiteral("x")}},
                 {}, bigCallMs);
        QVERIFY2(frame.value(QStringLiteral("error"))
                     .toString()
                     .startsWith(QStringLiteral("Could not write 'Docs/ppp")),
                 qPrintable(frame.value(QStringLiteral("error")).toString().right(80)));
        QVERIFY(frame.value(QStringLiteral("error"))
                    .toString()
                    .endsWith(QStringLiteral("': File name too long.")));
    }

    void hugeParamsObject() {
        QJsonObject params{{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")}};
        for (int i = 0; i < 100000; ++i) {
            params.insert(QStringLiteral("key%1").arg(i), i);
        }
        const QJsonObject frame = call(QStringLiteral("local_read_file"), params, {}, bigCallMs);
        QCOMPARE(result(frame).value(QStringLiteral("content")).toString(),
                 QString::fromUtf8(notes));
    }

    void deeplyNestedJson() {
        // The service's own parser refuses 100000 levels from the agent: it is not an object.
        const QByteArray deepParams = nested(100000);
        const QJsonObject refused =
            callWith("{\"method\":\"local_list_files\",\"params\":" + deepParams + "}");
        QCOMPARE(refused.value(QStringLiteral("status")).toInt(), 400);

        // Sent to the companion as it is, the frame cannot be read and is dropped unanswered;
        // one nested 1000 levels deep is read and answered.
        const qsizetype mark = live()->messages.size();
        sendRaw("{\"type\":\"call\",\"req_id\":\"deep-100000\",\"method\":\"local_list_files\","
                "\"params\":{\"path\":\"Docs\",\"deep\":" +
                    deepParams + "}}",
                false);
        sendRaw("{\"type\":\"call\",\"req_id\":\"deep-1000\",\"method\":\"local_list_files\","
                "\"params\":{\"path\":\"Docs\",\"deep\":" +
                    nested(1000) + "}}",
                false);
        sendRaw("{\"type\":" + deepParams + "}", false);
        // Frames are answered in order: once this one is, those before it have been handled.
        checkStillAnswering();
        const QList<BridgeTap::Message> sent = sentSince(mark);
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent[0].reqId, QStringLiteral("deep-1000"));
        QCOMPARE(sent[0].object.value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(sent[1].object.value(QStringLiteral("ok")), QJsonValue(true));
    }

    void binaryFrames() {
        const qsizetype mark = live()->messages.size();
        // Not UTF-8: dropped.
        sendRaw(
            "\xff\xfe{\"type\":\"call\",\"req_id\":\"bin-bad\",\"method\":\"local_list_files\"}",
            true);
        sendRaw(QByteArray("\xc3\x28\xa0\xa1\x00\x01", 6), true);
        // UTF-8 JSON in a binary message: handled like text, answered with a text message.
        sendRaw(compact({{QStringLiteral("type"), QStringLiteral("call")},
                         {QStringLiteral("req_id"), QStringLiteral("bin-ok")},
                         {QStringLiteral("method"), QStringLiteral("local_read_file")},
                         {QStringLiteral("params"),
                          QJsonObject{
                              {QStringLiteral("path"), QStringLiteral("Docs/caf\u00e9.txt")}}}}),
                true);
        // Text that is no frame at all.
        sendRaw("not json", false);
        sendRaw("[]", false);
        sendRaw(QByteArray(2 * 1000 * 1000, '{'), false);
        checkStillAnswering();

        const QList<BridgeTap::Message> sent = sentSince(mark);
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent[0].opcode, 1);
        QCOMPARE(sent[0].object,
                 (QJsonObject{
                     {QStringLiteral("type"), QStringLiteral("result")},
                     {QStringLiteral("req_id"), QStringLiteral("bin-ok")},
                     {QStringLiteral("ok"), true},
                     {QStringLiteral("result"),
                      QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/caf\u00e9.txt")},
                                  {QStringLiteral("content"), QStringLiteral("caf\u00e9\n")},
                                  {QStringLiteral("truncated"), false}}}}));
        QCOMPARE(sent[1].opcode, 1);
    }

    void fifoAndDevice() {
        const QString pipe = tree.path(QStringLiteral("Docs/pipe"));
        QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0644), 0);
        QVERIFY(QFile::link(QStringLiteral("/dev/zero"), tree.path(QStringLiteral("Docs/zero"))));

        // Opening either would block, or never end; both are refused at once (the device, which
        // lies outside the shared folder, is not even looked at).
        QCOMPARE(
            call(QStringLiteral("local_read_file"),
                 {{QStringLiteral("path"), QStringLiteral("Docs/pipe")}}),
            errorOnly(QStringLiteral("Could not read 'Docs/pipe': it is not a regular file.")));
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/zero")}}),
                 errorOnly(QStringLiteral("Path leads outside the shared folders.")));
        // A write to the FIFO, with nobody reading it, fails rather than waits.
        const QJsonObject written = call(QStringLiteral("local_write_file"),
                                         {{QStringLiteral("path"), QStringLiteral("Docs/pipe")},
                                          {QStringLiteral("content"), QStringLiteral("x")}});
        QCOMPARE(written, errorOnly(QStringLiteral("Could not write 'Docs/pipe': No such device or "
                                                   "address.")));
        // Neither is a file to find.
        const QJsonObject found = call(QStringLiteral("local_search_files"),
                                       {{QStringLiteral("query"), QStringLiteral("*")}});
        QStringList matches;
        for (const QJsonValue& match : result(found).value(QStringLiteral("matches")).toArray()) {
            matches.append(match.toString());
        }
        matches.sort();
        QCOMPARE(matches, (QStringList{QStringLiteral("Docs/caf\u00e9.txt"),
                                       QStringLiteral("Docs/notes.txt")}));
        QVERIFY(QFile::remove(pipe));
        QVERIFY(QFile::remove(tree.path(QStringLiteral("Docs/zero"))));
    }

    void fileGrowingWhileRead() {
        const QString path = tree.path(QStringLiteral("Docs/growing.log"));
        QVERIFY(tree.file(QStringLiteral("Docs/growing.log"), QByteArray()).size() > 0);
        // A writer that appends a line of 1000 characters every few milliseconds, 600 at most.
        QProcess writer;
        writer.setProgram(QStringLiteral("/bin/sh"));
        writer.setArguments({QStringLiteral("-c"),
                             QStringLiteral("line=$(printf '%0999d' 0); i=0; while [ $i -lt 600 ]; "
                                            "do printf '%s\\n' \"$line\" >> '") +
                                 path + QStringLiteral("'; i=$((i+1)); sleep 0.005; done")});
        writer.start();
        QVERIFY(writer.waitForStarted());

        QList<QString> contents;
        QList<bool> truncated;
        for (int i = 0; i < 200 && writer.state() != QProcess::NotRunning; ++i) {
            const QJsonObject read =
                result(call(QStringLiteral("local_read_file"),
                            {{QStringLiteral("path"), QStringLiteral("Docs/growing.log")}}));
            QVERIFY(read.contains(QStringLiteral("content")));
            contents.append(read.value(QStringLiteral("content")).toString());
            truncated.append(read.value(QStringLiteral("truncated")).toBool());
            EventWait::pause(20);
        }
        QVERIFY(writer.state() == QProcess::NotRunning || writer.waitForFinished(60000));
        QCOMPARE(writer.exitStatus(), QProcess::NormalExit);
        const QString whole = QString::fromLatin1(fileBytes(path));
        QCOMPARE(whole.size(), 600 * 1000);

        // Every answer is the file's beginning as it stood at some moment: never more than
        // 100000 characters, cut and marked so only when there was more.
        int growing = 0;
        int cut = 0;
        for (qsizetype i = 0; i < contents.size(); ++i) {
            QVERIFY(contents[i].size() <= 100000);
            QVERIFY(whole.startsWith(contents[i]));
            if (truncated[i]) {
                QCOMPARE(contents[i].size(), 100000);
            }
            if (i > 0) {
                QVERIFY(contents[i].size() >= contents[i - 1].size());
            }
            growing += contents[i].size() < 100000 ? 1 : 0;
            cut += truncated[i] ? 1 : 0;
        }
        QVERIFY2(contents.size() >= 5, "the file outgrew the reads too fast");
        qInfo("%lld reads while the file grew: %d short of the limit, %d cut at 100000",
              static_cast<long long>(contents.size()), growing, cut);
        QVERIFY(QFile::remove(path));
    }

    void symbolicLinkLoops() {
        tree.file(QStringLiteral("Docs/loop/deep/x.txt"), "x");
        QVERIFY(QFile::link(QStringLiteral(".."), tree.path(QStringLiteral("Docs/loop/up"))));
        QVERIFY(QFile::link(QStringLiteral("self"), tree.path(QStringLiteral("Docs/loop/self"))));
        QVERIFY(QFile::link(QStringLiteral("b"), tree.path(QStringLiteral("Docs/loop/a"))));
        QVERIFY(QFile::link(QStringLiteral("a"), tree.path(QStringLiteral("Docs/loop/b"))));

        // Links are not followed by the search: the one real match, once.
        QJsonObject frame = call(QStringLiteral("local_search_files"),
                                 {{QStringLiteral("query"), QStringLiteral("x.txt")},
                                  {QStringLiteral("max_results"), 100}});
        QCOMPARE(result(frame).value(QStringLiteral("matches")).toArray(),
                 QJsonArray{QStringLiteral("Docs/loop/deep/x.txt")});
        frame = call(
            QStringLiteral("local_search_files"),
            {{QStringLiteral("query"), QStringLiteral("*")}, {QStringLiteral("max_results"), 100}});
        QCOMPARE(result(frame).value(QStringLiteral("count")).toInteger(), 3);

        // Reading and listing go through links, so the system's limit on them applies.
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/loop/self")}}),
                 errorOnly(QStringLiteral("File not found: Docs/loop/self")));
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/loop/a")}}),
                 errorOnly(QStringLiteral("File not found: Docs/loop/a")));
        QCOMPARE(call(QStringLiteral("local_list_files"),
                      {{QStringLiteral("path"), QStringLiteral("Docs/loop/self")}}),
                 errorOnly(QStringLiteral("Path not found: Docs/loop/self")));
        QString around = QStringLiteral("Docs/loop");
        for (int i = 0; i < 10; ++i) {
            around += QStringLiteral("/up/loop");
        }
        frame = call(QStringLiteral("local_list_files"), {{QStringLiteral("path"), around}});
        QCOMPARE(result(frame).value(QStringLiteral("count")).toInteger(), 5);
        for (int i = 0; i < 40; ++i) {
            around += QStringLiteral("/up/loop");
        }
        QCOMPARE(call(QStringLiteral("local_list_files"), {{QStringLiteral("path"), around}}),
                 errorOnly(QStringLiteral("Path not found: ") + around));
        QVERIFY(QDir(tree.path(QStringLiteral("Docs/loop"))).removeRecursively());
    }

    void noPermission() {
        // Root reads and writes anything; a companion of its own runs as nobody for this.
        const bool root = ::geteuid() == 0;
        PairedCompanion other(companionBin, CompanionSandbox::Bus::None,
                              root ? PairedCompanion::Account::Nobody
                                   : PairedCompanion::Account::Same);
        if (!other.isValid()) {
            QSKIP(qPrintable(QStringLiteral("no account that file permissions apply to: ") +
                             other.problem()));
        }
        const HttpJson::Reply code =
            http->post(QStringLiteral("/api/v1/agent/pairing-codes"), QJsonObject());
        QCOMPARE(code.status, 201);
        const QString failure =
            other.setUp(service->baseUrl(), code.json().value(QStringLiteral("code")).toString(),
                        {tree.path(QStringLiteral("Perm"))}, false);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY2(other.start(service->baseUrl()), qPrintable(other.describe()));
        const QString device = deviceOf(1);

        const QByteArray secretBefore = fileBytes(tree.path(QStringLiteral("Perm/rofile.txt")));
        const QString denied = QStringLiteral("Permission denied.");
        // The locked folder is skipped without a word.
        QJsonObject frame = call(QStringLiteral("local_search_files"),
                                 {{QStringLiteral("query"), QStringLiteral("match")}}, device);
        QCOMPARE(result(frame).value(QStringLiteral("matches")).toArray(),
                 QJsonArray{QStringLiteral("Perm/open/match-open.txt")});
        QCOMPARE(call(QStringLiteral("local_list_files"),
                      {{QStringLiteral("path"), QStringLiteral("Perm/locked")}}, device),
                 errorOnly(QStringLiteral("Could not list 'Perm/locked': ") + denied));
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Perm/secret.txt")}}, device),
                 errorOnly(QStringLiteral("Could not read 'Perm/secret.txt': ") + denied));
        // Behind a folder it may not enter, a file cannot even be seen.
        QCOMPARE(call(QStringLiteral("local_read_file"),
                      {{QStringLiteral("path"), QStringLiteral("Perm/locked/match-locked.txt")}},
                      device),
                 errorOnly(QStringLiteral("File not found: Perm/locked/match-locked.txt")));

        const auto write = [&](const QString& path) {
            return call(QStringLiteral("local_write_file"),
                        {{QStringLiteral("path"), path},
                         {QStringLiteral("content"), QStringLiteral("agent was here")}},
                        device);
        };
        QCOMPARE(write(QStringLiteral("Perm/ro/new.txt")),
                 errorOnly(QStringLiteral("Could not write 'Perm/ro/new.txt': ") + denied));
        QCOMPARE(write(QStringLiteral("Perm/ro/existing.txt")),
                 errorOnly(QStringLiteral("Could not write 'Perm/ro/existing.txt': ") + denied));
        QCOMPARE(
            write(QStringLiteral("Perm/ro/sub/new.txt")),
            errorOnly(QStringLiteral("Could not create the folders for 'Perm/ro/sub/new.txt': ") +
                      denied));
        QCOMPARE(write(QStringLiteral("Perm/rofile.txt")),
                 errorOnly(QStringLiteral("Could not write 'Perm/rofile.txt': ") + denied));
        QCOMPARE(write(QStringLiteral("Perm/locked/new.txt")),
                 errorOnly(QStringLiteral("Could not write 'Perm/locked/new.txt': ") + denied));
        QCOMPARE(fileBytes(tree.path(QStringLiteral("Perm/rofile.txt"))), secretBefore);
        QCOMPARE(fileBytes(tree.path(QStringLiteral("Perm/ro/existing.txt"))),
                 QByteArray("existing"));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("Perm/ro/new.txt"))));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("Perm/ro/sub"))));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("Perm/locked/new.txt"))));

        // And where it may write, it does.
        QCOMPARE(result(write(QStringLiteral("Perm/open/new.txt"))).value(QStringLiteral("bytes")),
                 QJsonValue(14));
        QVERIFY(other.isRunning());
        QCOMPARE(result(call(QStringLiteral("local_read_file"),
                             {{QStringLiteral("path"), QStringLiteral("Perm/notes.txt")}}, device))
                     .value(QStringLiteral("content"))
                     .toString(),
                 QString::fromUtf8(notes));
        QCOMPARE(other.stop(), 0);
        for (const QByteArray& output : other.outputs()) {
            for (const QString& token : service->deviceTokens()) {
                QVERIFY(!output.contains(token.toUtf8()));
            }
        }
    }

    void readOnlyFileSystem() {
        tree.file(QStringLiteral("Docs/frozen/existing.txt"), "existing");
        const QString frozen = tree.path(QStringLiteral("Docs/frozen"));
        if (!mountReadOnlyBind(frozen)) {
            QSKIP("cannot make a read-only bind mount here (needs root and mount rights)");
        }
        const auto write = [&](const QString& path) {
            return call(QStringLiteral("local_write_file"),
                        {{QStringLiteral("path"), path},
                         {QStringLiteral("content"), QStringLiteral("agent was here")}});
        };
        const QString readOnly = QStringLiteral("Read-only file system.");
        QCOMPARE(write(QStringLiteral("Docs/frozen/new.txt")),
                 errorOnly(QStringLiteral("Could not write 'Docs/frozen/new.txt': ") + readOnly));
        QCOMPARE(
            write(QStringLiteral("Docs/frozen/existing.txt")),
            errorOnly(QStringLiteral("Could not write 'Docs/frozen/existing.txt': ") + readOnly));
        QCOMPARE(write(QStringLiteral("Docs/frozen/sub/new.txt")),
                 errorOnly(QStringLiteral("Could not create the folders for "
                                          "'Docs/frozen/sub/new.txt': ") +
                           readOnly));
        QCOMPARE(fileBytes(frozen + QStringLiteral("/existing.txt")), QByteArray("existing"));
        // Reading there is fine.
        QCOMPARE(
            result(call(QStringLiteral("local_read_file"),
                        {{QStringLiteral("path"), QStringLiteral("Docs/frozen/existing.txt")}}))
                .value(QStringLiteral("content"))
                .toString(),
            QStringLiteral("existing"));
    }

    void fileSizeLimit() {
        // The limit on the size of files that the companion's file-tool worker writes (as
        // `ulimit -f` sets it), lowered to 1 MiB from here. A call first, so that it runs.
        call(QStringLiteral("local_list_files"), {});
        ProcessCensus census;
        census.look();
        qint64 pid = 0;
        for (const ProcessCensus::Sighting& sighting : census.sightings()) {
            if (sighting.commandLine.contains("quillmar-file-worker") &&
                QFileInfo::exists(QStringLiteral("/proc/%1").arg(sighting.pid))) {
                pid = sighting.pid;
            }
        }
        QVERIFY(pid > 0);
        rlimit previous{};
        rlimit lowered{};
        QCOMPARE(::prlimit(pid_t(pid), RLIMIT_FSIZE, nullptr, &previous), 0);
        lowered.rlim_cur = 1024 * 1024;
        lowered.rlim_max = previous.rlim_max;
        QCOMPARE(::prlimit(pid_t(pid), RLIMIT_FSIZE, &lowered, nullptr), 0);
        const auto restore =
            qScopeGuard([&] { ::prlimit(pid_t(pid), RLIMIT_FSIZE, &previous, nullptr); });

        const QByteArray twoMegabytes(2 * 1024 * 1024, 'z');
        const QJsonObject frame =
            call(QStringLiteral("local_write_file"),
                 {{QStringLiteral("path"), QStringLiteral("Docs/limit.bin")},
                  {QStringLiteral("content_base64"), QString::fromLatin1(twoMegabytes.toBase64())}},
                 {}, bigCallMs);
        // Not ended by the system's signal for it: the write fails like any other.
        QCOMPARE(frame,
                 errorOnly(QStringLiteral("Could not write 'Docs/limit.bin': File too large.")));
        QCOMPARE(QFileInfo(tree.path(QStringLiteral("Docs/limit.bin"))).size(), 1024 * 1024);
        QVERIFY(QFile::remove(tree.path(QStringLiteral("Docs/limit.bin"))));
    }

    void fullDisk() {
        const QString small = tree.path(QStringLiteral("Docs/small"));
        QVERIFY(QDir().mkpath(small));
        QString target = QStringLiteral("Docs/small/big.bin");
        if (!mountTmpfs(small, "size=1m,mode=0755")) {
            // Without mount rights: the system's always-full device stands in for the disk.
            qInfo("cannot mount a small tmpfs here; writing to /dev/full instead");
            QVERIFY(QFile::link(QStringLiteral("/dev/full"), small + QStringLiteral("/big.bin")));
        }
        const QByteArray twoMegabytes(2 * 1024 * 1024, 'z');
        const QJsonObject frame =
            call(QStringLiteral("local_write_file"),
                 {{QStringLiteral("path"), target},
                  {QStringLiteral("content_base64"), QString::fromLatin1(twoMegabytes.toBase64())}},
                 {}, bigCallMs);
        QCOMPARE(frame, errorOnly(QStringLiteral("Could not write 'Docs/small/big.bin': No space "
                                                 "left on device.")));
        // What did fit is there; the write is plain, not atomic. Small writes still go through
        // while there is room.
        if (!mounts.isEmpty()) {
            QVERIFY(QFile::remove(small + QStringLiteral("/big.bin")));
            const QJsonObject fits =
                call(QStringLiteral("local_write_file"),
                     {{QStringLiteral("path"), QStringLiteral("Docs/small/ok.txt")},
                      {QStringLiteral("content"), QStringLiteral("fits")}});
            QCOMPARE(result(fits).value(QStringLiteral("bytes")), QJsonValue(4));
        } else {
            QVERIFY(QFile::remove(small + QStringLiteral("/big.bin")));
        }
    }
};

QTEST_GUILESS_MAIN(BadInputTest)
#include "tst_badinput.moc"
