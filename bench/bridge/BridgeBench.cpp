// The bridge benchmark's driver. Talks to quillmar-devservice's agent API over one HTTP
// keep-alive connection (blocking: nothing else runs in this process), and times the same tool
// calls in process through FileService (with the access policy made once, as the file-tool
// worker makes it) for comparison.
//
//   bridge-bench mktree DIR DIRS FILES        files DIR/dNNNN/fNNN.txt (kept if complete)
//   bridge-bench small PORT DEVICE FOLDER N   N list calls of FOLDER (agent path "Small")
//   bridge-bench search PORT DEVICE FOLDER QUERY REPEAT COMPANION
//                                             REPEAT searches through the bridge and through
//                                             `COMPANION call` (agent path "Big")
//   bridge-bench worker WORKER FOLDER N       N list calls through a FileWorker running the
//                                             worker program WORKER, and in process; the
//                                             worker's start-up time and memory
//   bridge-bench versions WORKER FOLDER N     N overwrites of a 1 MiB file through a
//                                             FileWorker, keeping the previous version and
//                                             not, alternately

#include "AccessPolicy.h"
#include "AppIdentity.h"
#include "FileService.h"
#include "FileWorker.h"
#include "SharedFolder.h"
#include "VersionStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QUuid>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

QTextStream out(stdout);

double micros(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const std::size_t index =
        std::min(values.size() - 1, std::size_t(p / 100.0 * double(values.size())));
    return values[index];
}

// One keep-alive HTTP/1.1 connection on a plain blocking socket, so that the agent's side adds
// as little as possible to what is measured; a request waits for its whole answer.
class AgentConnection {
public:
    AgentConnection() = default;
    AgentConnection(const AgentConnection&) = delete;
    AgentConnection& operator=(const AgentConnection&) = delete;
    ~AgentConnection() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    bool open(quint16 port) {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        return m_fd >= 0 &&
               ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    // Body of the answer, or empty on failure; `status` set to the HTTP status (0: no answer).
    QByteArray post(const QByteArray& path, const QByteArray& body, int& status) {
        const QByteArray request =
            "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
            "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) +
            "\r\n\r\n" + body;
        status = 0;
        if (::send(m_fd, request.constData(), std::size_t(request.size()), MSG_NOSIGNAL) !=
            request.size()) {
            return {};
        }
        qsizetype headEnd = -1;
        qsizetype length = -1;
        for (;;) {
            if (headEnd < 0) {
                headEnd = m_buffer.indexOf("\r\n\r\n");
                if (headEnd >= 0) {
                    const QByteArray head = m_buffer.left(headEnd).toLower();
                    status = head.mid(9, 3).toInt();
                    const qsizetype at = head.indexOf("content-length:");
                    if (at < 0) {
                        return {};
                    }
                    const qsizetype lineEnd = head.indexOf("\r\n", at);
                    length = head.mid(at + 15, (lineEnd < 0 ? head.size() : lineEnd) - at - 15)
                                 .trimmed()
                                 .toLongLong();
                }
            }
            if (headEnd >= 0 && m_buffer.size() >= headEnd + 4 + length) {
                const QByteArray answer = m_buffer.mid(headEnd + 4, length);
                m_buffer.remove(0, headEnd + 4 + length);
                return answer;
            }
            char chunk[65536];
            const ssize_t got = ::recv(m_fd, chunk, sizeof chunk, 0);
            if (got <= 0) {
                status = 0;
                return {};
            }
            m_buffer.append(chunk, got);
        }
    }

private:
    int m_fd = -1;
    QByteArray m_buffer;
};

// The same calls in this process, with the work the worker does for each: the access policy is
// made once, as the worker makes it once for its folders.
std::vector<double> inProcessCalls(const QString& method, const QJsonObject& params,
                                   const QList<SharedFolder>& folders, int count) {
    const AccessPolicy policy(folders, AppIdentity::ownFiles());
    std::vector<double> latencies;
    latencies.reserve(std::size_t(count));
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        const ToolResult result = FileService::execute(method, params, policy, {});
        latencies.push_back(micros(Clock::now() - start));
        if (!result.isJson() && result.toObject().contains(QStringLiteral("error"))) {
            out << "in-process call failed: " << QJsonDocument(result.toObject()).toJson()
                << Qt::endl;
            return {};
        }
    }
    return latencies;
}

void report(const char* label, const std::vector<double>& latencies, double seconds) {
    out << label << ": " << latencies.size() << " calls, "
        << qRound(double(latencies.size()) / seconds) << " calls/s, p50 "
        << QString::number(percentile(latencies, 50) / 1000.0, 'f', 3) << " ms, p99 "
        << QString::number(percentile(latencies, 99) / 1000.0, 'f', 3) << " ms" << Qt::endl;
}

int makeTree(const QStringList& args) {
    const QString root = args.value(0);
    const int dirs = args.value(1).toInt();
    const int files = args.value(2).toInt();
    const QString marker = root + QStringLiteral("/.complete-%1x%2").arg(dirs).arg(files);
    if (QFile::exists(marker)) {
        return 0;
    }
    for (int d = 0; d < dirs; ++d) {
        const QString dir = root + QStringLiteral("/d%1").arg(d, 4, 10, QLatin1Char('0'));
        QDir().mkpath(dir);
        for (int f = 0; f < files; ++f) {
            QFile file(dir + QStringLiteral("/f%1.txt").arg(f, 3, 10, QLatin1Char('0')));
            if (!file.open(QIODevice::WriteOnly)) {
                return 1;
            }
        }
    }
    QFile done(marker);
    return done.open(QIODevice::WriteOnly) ? 0 : 1;
}

int smallCalls(const QStringList& args) {
    const quint16 port = quint16(args.value(0).toUInt());
    const QByteArray path = "/api/v1/agent/devices/" + args.value(1).toUtf8() + "/calls";
    const QString folder = args.value(2);
    const int count = args.value(3).toInt();
    const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Small")}};
    const QByteArray body =
        QJsonDocument(QJsonObject{{QStringLiteral("method"), QStringLiteral("local_list_files")},
                                  {QStringLiteral("params"), params}})
            .toJson(QJsonDocument::Compact);

    AgentConnection agent;
    if (!agent.open(port)) {
        out << "cannot connect to the dev service" << Qt::endl;
        return 1;
    }
    auto run = [&](int n, std::vector<double>& latencies) {
        for (int i = 0; i < n; ++i) {
            int status = 0;
            const auto start = Clock::now();
            const QByteArray answer = agent.post(path, body, status);
            latencies.push_back(micros(Clock::now() - start));
            if (status != 200 || !answer.contains("\"ok\":true")) {
                out << "bridge call failed: " << status << " " << answer << Qt::endl;
                return false;
            }
        }
        return true;
    };
    std::vector<double> warmup;
    std::vector<double> bridge;
    bridge.reserve(std::size_t(count));
    if (!run(500, warmup)) {
        return 1;
    }
    QElapsedTimer timer;
    timer.start();
    if (!run(count, bridge)) {
        return 1;
    }
    const double bridgeSeconds = double(timer.nsecsElapsed()) / 1e9;

    const QList<SharedFolder> folders{
        SharedFolder{QUuid::createUuid(), QStringLiteral("Small"), folder, std::nullopt}};
    inProcessCalls(QStringLiteral("local_list_files"), params, folders, 500);
    timer.restart();
    const std::vector<double> local =
        inProcessCalls(QStringLiteral("local_list_files"), params, folders, count);
    const double localSeconds = double(timer.nsecsElapsed()) / 1e9;
    if (local.empty()) {
        return 1;
    }

    report("bridge    ", bridge, bridgeSeconds);
    report("in-process", local, localSeconds);
    const double overhead = (percentile(bridge, 50) - percentile(local, 50)) / 1000.0;
    out << "bridge overhead at p50: " << QString::number(overhead, 'f', 3)
        << " ms per call (target < 0.200 ms): " << (overhead < 0.2 ? "met" : "MISSED") << Qt::endl;
    return 0;
}

int searches(const QStringList& args) {
    const quint16 port = quint16(args.value(0).toUInt());
    const QByteArray path = "/api/v1/agent/devices/" + args.value(1).toUtf8() + "/calls";
    const QString folder = args.value(2);
    const QString query = args.value(3);
    const int repeat = std::max(1, args.value(4).toInt());
    const QString companion = args.value(5);
    const QJsonObject params{{QStringLiteral("query"), query}};
    const QByteArray body =
        QJsonDocument(QJsonObject{{QStringLiteral("method"), QStringLiteral("local_search_files")},
                                  {QStringLiteral("params"), params},
                                  {QStringLiteral("timeout_ms"), 600000}})
            .toJson(QJsonDocument::Compact);

    AgentConnection agent;
    if (!agent.open(port)) {
        out << "cannot connect to the dev service" << Qt::endl;
        return 1;
    }
    std::vector<double> bridge;
    std::vector<double> command;
    std::vector<double> local;
    QByteArray bridgeAnswer;
    QByteArray commandAnswer;
    const QList<SharedFolder> folders{
        SharedFolder{QUuid::createUuid(), QStringLiteral("Big"), folder, std::nullopt}};
    // Interleaved, so that the page cache and the machine's other load treat all alike.
    for (int i = 0; i < repeat + 1; ++i) {
        int status = 0;
        auto start = Clock::now();
        bridgeAnswer = agent.post(path, body, status);
        const double b = micros(Clock::now() - start);
        if (status != 200) {
            out << "bridge search failed: " << status << " " << bridgeAnswer << Qt::endl;
            return 1;
        }

        QProcess process;
        start = Clock::now();
        process.start(companion,
                      {QStringLiteral("call"), QStringLiteral("local_search_files"),
                       QString::fromUtf8(QJsonDocument(params).toJson(QJsonDocument::Compact)),
                       QStringLiteral("--folder"), QStringLiteral("Big=") + folder});
        process.waitForFinished(600000);
        const double c = micros(Clock::now() - start);
        commandAnswer = process.readAllStandardOutput().trimmed();

        const double l =
            inProcessCalls(QStringLiteral("local_search_files"), params, folders, 1).at(0);
        if (i > 0) { // the first round warms the caches
            bridge.push_back(b);
            command.push_back(c);
            local.push_back(l);
        }
    }
    const QJsonObject fromBridge =
        QJsonDocument::fromJson(bridgeAnswer).object().value(QStringLiteral("result")).toObject();
    const QJsonObject fromCommand = QJsonDocument::fromJson(commandAnswer).object();
    if (fromBridge != fromCommand) {
        out << "the two searches disagree:\n" << bridgeAnswer << "\n" << commandAnswer << Qt::endl;
        return 1;
    }
    const double b = percentile(bridge, 50) / 1000.0;
    const double c = percentile(command, 50) / 1000.0;
    const double l = percentile(local, 50) / 1000.0;
    out << "search through the bridge:            median " << QString::number(b, 'f', 1)
        << " ms of " << bridge.size() << Qt::endl;
    out << "search by `quillmar-companion call`:  median " << QString::number(c, 'f', 1)
        << " ms (process start included)" << Qt::endl;
    out << "search through FileService in process: median " << QString::number(l, 'f', 1) << " ms"
        << Qt::endl;
    out << "bridge / call command: " << QString::number(b / c, 'f', 3)
        << " (target <= 1.2): " << (b / c <= 1.2 ? "met" : "MISSED") << Qt::endl;
    out << "bridge / in-process FileService: " << QString::number(b / l, 'f', 3) << Qt::endl;
    return 0;
}

qint64 statusKib(qint64 pid, const char* file, const QByteArray& key) {
    QFile status(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(file)));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(key + ':')) {
            return line.mid(key.size() + 1).trimmed().split(' ').value(0).toLongLong();
        }
    }
    return -1;
}

// The worker process on its own: the same small call through FileWorker and in this process,
// how long a new worker takes to give its first answer, and what it costs in memory.
int workerCalls(const QStringList& args) {
    const QString program = args.value(0);
    const QString folder = args.value(1);
    const int count = args.value(2).toInt();
    const QList<SharedFolder> folders{
        SharedFolder{QUuid::createUuid(), QStringLiteral("Small"), folder, std::nullopt}};
    const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Small")}};
    const QString method = QStringLiteral("local_list_files");

    std::vector<double> starts;
    for (int i = 0; i < 11; ++i) {
        FileWorker fresh(program, {});
        fresh.setFolders(folders);
        fresh.setOwnFiles(AppIdentity::ownFiles());
        const auto start = Clock::now();
        const ToolResult first = QCoro::waitFor(fresh.run(method, params));
        starts.push_back(micros(Clock::now() - start));
        if (!first.isJson()) {
            out << "worker call failed: " << QJsonDocument(first.toObject()).toJson() << Qt::endl;
            return 1;
        }
    }

    FileWorker worker(program, {});
    worker.setFolders(folders);
    worker.setOwnFiles(AppIdentity::ownFiles());
    std::vector<double> through;
    through.reserve(std::size_t(count));
    for (int i = 0; i < count + 500; ++i) {
        const auto start = Clock::now();
        const ToolResult result = QCoro::waitFor(worker.run(method, params));
        if (i >= 500) {
            through.push_back(micros(Clock::now() - start));
        }
        if (!result.isJson()) {
            out << "worker call failed: " << QJsonDocument(result.toObject()).toJson() << Qt::endl;
            return 1;
        }
    }
    inProcessCalls(method, params, folders, 500);
    const std::vector<double> local = inProcessCalls(method, params, folders, count);
    const qint64 pid = worker.processId();
    const double hop = (percentile(through, 50) - percentile(local, 50)) / 1000.0;
    out << "through the worker: p50 " << QString::number(percentile(through, 50) / 1000.0, 'f', 3)
        << " ms; in process: p50 " << QString::number(percentile(local, 50) / 1000.0, 'f', 3)
        << " ms" << Qt::endl;
    out << "worker hop at p50: " << QString::number(hop, 'f', 3) << " ms per call" << Qt::endl;
    out << "worker start to first answer: "
        << QString::number(percentile(starts, 50) / 1000.0, 'f', 1) << " ms median of "
        << starts.size() << Qt::endl;
    out << "worker memory: "
        << QString::number(double(statusKib(pid, "status", "VmRSS")) / 1024, 'f', 1)
        << " MiB resident, "
        << QString::number(double(statusKib(pid, "smaps_rollup", "Pss")) / 1024, 'f', 1)
        << " MiB proportional (" << worker.confinement().text() << ")" << Qt::endl;
    return 0;
}

} // namespace

// What keeping versions costs a write: the same 1 MiB overwrite through the worker with a version
// store (each write first copies the file it replaces, durably) and without one, in turns so
// that both see the same machine. The store is emptied between rounds so its budget never
// prunes during a timed write.
int versionCosts(const QStringList& args) {
    const QString program = args.value(0);
    const QString folder = args.value(1);
    const int count = std::max(3, args.value(2).toInt());
    const QList<SharedFolder> folders{
        SharedFolder{QUuid::createUuid(), QStringLiteral("Data"), folder, std::nullopt}};
    QFile seed(folder + QStringLiteral("/one-mib.bin"));
    if (!seed.open(QIODevice::WriteOnly) ||
        seed.write(QByteArray(1024 * 1024, 'v')) != 1024 * 1024) {
        out << "cannot write " << seed.fileName() << Qt::endl;
        return 1;
    }
    seed.close();
    const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Data/one-mib.bin")},
                             {QStringLiteral("content_base64"),
                              QString::fromLatin1(QByteArray(1024 * 1024, 'w').toBase64())}};
    const QString method = QStringLiteral("local_write_file");
    const auto allow = [](QString, qint64) -> QCoro::Task<bool> { co_return true; };

    QTemporaryDir storeDir;
    VersionStore store(storeDir.path() + QStringLiteral("/versions"), VersionStore::Budget());
    FileWorker keeping(program, allow);
    keeping.setFolders(folders);
    keeping.setVersionStore(&store);
    FileWorker plain(program, allow);
    plain.setFolders(folders);

    std::vector<double> with;
    std::vector<double> without;
    for (int i = 0; i < count + 2; ++i) {
        for (FileWorker* worker : {&keeping, &plain}) {
            const auto start = Clock::now();
            const ToolResult result = QCoro::waitFor(worker->run(method, params));
            const double took = micros(Clock::now() - start);
            if (!result.isJson()) {
                out << "write failed: " << QJsonDocument(result.toObject()).toJson() << Qt::endl;
                return 1;
            }
            if (i >= 2) {
                (worker == &keeping ? with : without).push_back(took);
            }
        }
        if (i >= 2 && keeping.lastCall().versionId.isEmpty()) {
            out << "no version kept: " << keeping.lastCall().versionNote << Qt::endl;
            return 1;
        }
        for (const VersionRecord& record : store.list()) {
            QFile::remove(store.directory() + u'/' + record.id + QStringLiteral(".bytes"));
            QFile::remove(store.directory() + u'/' + record.id + QStringLiteral(".json"));
        }
    }
    const double on = percentile(with, 50) / 1000.0;
    const double off = percentile(without, 50) / 1000.0;
    out << "1 MiB overwrite through the worker: versions kept p50 " << QString::number(on, 'f', 2)
        << " ms, not kept p50 " << QString::number(off, 'f', 2) << " ms (" << count << " each)"
        << Qt::endl;
    out << "versions on / off: " << QString::number(on / off, 'f', 2) << "x" << Qt::endl;
    return 0;
}

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const QString mode = args.value(0);
    if (mode == u"mktree") {
        return makeTree(args.mid(1));
    }
    if (mode == u"small") {
        return smallCalls(args.mid(1));
    }
    if (mode == u"search") {
        return searches(args.mid(1));
    }
    if (mode == u"versions") {
        return versionCosts(args.mid(1));
    }
    if (mode == u"worker") {
        return workerCalls(args.mid(1));
    }
    QTextStream(stderr) << "usage: see the top of BridgeBench.cpp\n";
    return 2;
}
