// The driver of bench/peer/run. One process, blocking I/O and nothing else running in it, talks
// to both sides the same way:
//
//   ours   quillmar-devservice's agent API over one HTTP/1.1 keep-alive connection, through the
//          bridge to a headless quillmar-companion and back;
//   peer   one long-lived file server speaking JSON-RPC 2.0 over its stdin and stdout.
//
// For every operation it sends one request and waits for the whole answer: the time to an
// answer. One operation at a time: one warm-up run of each side, then N runs interleaved (ours,
// the peer, and find for the search; who goes first alternates), and the medians are compared.
//
//   peer-bench PORT DEVICE RUNS WORK NODE PEER_JS [ONLY [OUR_MCP_COMMAND...]]
//
// ONLY, a comma-separated list of list, read-small, read-large, search, mcp-read-small and
// mcp-search, keeps those operations (default: all). The mcp- ones compare the same reads and
// searches over the Model Context Protocol on both sides: OUR_MCP_COMMAND starts
// `quillmar-companion mcp` (with the companion's environment), a second long-lived server
// spoken to exactly as the peer is.
// WORK holds the generated data (see bench/peer/run) and the shared folders' agent names in
// WORK/names.txt ("list=NAME" and so on, one a line). Prints the table and a machine-readable
// line per comparison ("ratio NAME VALUE TARGET PASS|MISS"); exits 0 when every target is met,
// 1 when one is missed or an answer is wrong, 2 on a setup error.

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QTextBoundaryFinder>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// No single answer may take longer than this; the whole run is bounded by it.
constexpr int answerTimeoutMs = 120000;

double millis(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

[[noreturn]] void setupError(const std::string& message) {
    std::fprintf(stderr, "peer-bench: %s\n", message.c_str());
    std::exit(2);
}

// Waits until `fd` is readable; false on time-out.
bool waitReadable(int fd, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, int(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

// Appends what one read gives to `buffer`; the number of bytes, 0 at the end, -1 on error.
ssize_t readInto(int fd, std::string& buffer) {
    constexpr std::size_t chunk = 1 << 20;
    const std::size_t used = buffer.size();
    if (buffer.capacity() - used < chunk) {
        buffer.reserve(std::max(buffer.capacity() * 2, used + chunk));
    }
    buffer.resize(buffer.capacity());
    ssize_t got;
    do {
        got = ::read(fd, buffer.data() + used, buffer.size() - used);
    } while (got < 0 && errno == EINTR);
    buffer.resize(used + std::size_t(std::max<ssize_t>(got, 0)));
    return got;
}

// ---------------------------------------------------------------------------------------------
// Our side: the dev service's agent API, one keep-alive connection on a blocking socket.

class Agent {
public:
    Agent(quint16 port, const std::string& device)
        : m_port(port), m_path("/api/v1/agent/devices/" + device + "/calls") {
        connectNow();
    }
    ~Agent() { ::close(m_fd); }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // One call; the body of the answer. Any failure ends the run, except that a connection the
    // service closed while idle (it keeps them only so long) is opened again once.
    std::string call(const std::string& body) {
        if (std::optional<std::string> answer = tryCall(body)) {
            return *answer;
        }
        ::close(m_fd);
        m_buffer.clear();
        connectNow();
        if (std::optional<std::string> answer = tryCall(body)) {
            return *answer;
        }
        setupError("no answer from the dev service");
    }

private:
    void connectNow() {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        if (m_fd < 0 || ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
            ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            setupError("cannot connect to the dev service on port " + std::to_string(m_port));
        }
    }

    // Nothing when the connection was closed before any of the answer came.
    std::optional<std::string> tryCall(const std::string& body) {
        const std::string request = "POST " + m_path +
                                    " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
                                    "application/json\r\nContent-Length: " +
                                    std::to_string(body.size()) + "\r\n\r\n" + body;
        if (::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size())) {
            return std::nullopt;
        }
        const auto deadline = Clock::now() + std::chrono::milliseconds(answerTimeoutMs);
        std::size_t headEnd = std::string::npos;
        std::size_t length = 0;
        int status = 0;
        for (;;) {
            if (headEnd == std::string::npos) {
                headEnd = m_buffer.find("\r\n\r\n");
                if (headEnd != std::string::npos) {
                    std::string head = m_buffer.substr(0, headEnd);
                    std::transform(head.begin(), head.end(), head.begin(),
                                   [](unsigned char c) { return char(std::tolower(c)); });
                    status = std::atoi(head.c_str() + 9);
                    const std::size_t at = head.find("content-length:");
                    if (at == std::string::npos) {
                        setupError("an answer without content-length");
                    }
                    length = std::strtoull(head.c_str() + at + 15, nullptr, 10);
                }
            }
            if (headEnd != std::string::npos && m_buffer.size() >= headEnd + 4 + length) {
                std::string answer = m_buffer.substr(headEnd + 4, length);
                m_buffer.erase(0, headEnd + 4 + length);
                if (status != 200) {
                    setupError("the dev service answered " + std::to_string(status) + ": " +
                               answer.substr(0, 300));
                }
                return answer;
            }
            if (!waitReadable(m_fd, deadline)) {
                setupError("no answer from the dev service");
            }
            if (readInto(m_fd, m_buffer) <= 0) {
                if (m_buffer.empty()) {
                    return std::nullopt;
                }
                setupError("the dev service closed the connection in the middle of an answer");
            }
        }
    }

    quint16 m_port;
    int m_fd = -1;
    std::string m_path;
    std::string m_buffer;
};

// ---------------------------------------------------------------------------------------------
// The peer: one process, JSON-RPC 2.0 messages one a line on its stdin and stdout.

class Peer {
public:
    Peer(const std::vector<std::string>& argv, const std::string& stderrPath) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            setupError("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char*> args;
        for (const std::string& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        if (posix_spawnp(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
            setupError("cannot start the peer");
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        m_in = in[1];
        m_out = out[0];
    }
    ~Peer() {
        ::close(m_in); // end of input: the server exits
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        int status = 0;
        while (::waitpid(m_pid, &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) {
                ::kill(m_pid, SIGKILL);
                ::waitpid(m_pid, &status, 0);
                break;
            }
            ::usleep(10000);
        }
        ::close(m_out);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void notify(const std::string& method) {
        send("{\"jsonrpc\":\"2.0\",\"method\":\"" + method + "\"}\n");
    }

    // One request; the whole line of the answer with the same id. Lines for other ids and
    // notifications are skipped: the server may answer out of order.
    std::string request(const std::string& method, const std::string& params) {
        const long id = ++m_lastId;
        send("{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"method\":\"" + method +
             "\",\"params\":" + params + "}\n");
        const auto deadline = Clock::now() + std::chrono::milliseconds(answerTimeoutMs);
        for (;;) {
            const std::size_t end = m_buffer.find('\n', m_scanned);
            if (end == std::string::npos) {
                m_scanned = m_buffer.size();
                if (!waitReadable(m_out, deadline) || readInto(m_out, m_buffer) <= 0) {
                    setupError("no answer from the peer (see its log)");
                }
                continue;
            }
            std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            m_scanned = 0;
            if (idOf(line) == id) {
                return line;
            }
        }
    }

private:
    void send(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                setupError("the peer closed its input");
            }
            done += std::size_t(n);
        }
    }

    // The id of an answer: the last top-level "id" member. An unescaped `"id":` cannot occur
    // inside a JSON string, so the last one in the line is a member name; the server writes the
    // id after the result, so the search from the end is short even for huge answers.
    static long idOf(const std::string& line) {
        if (line.find("\"method\"") != std::string::npos &&
            line.find("\"result\"") == std::string::npos &&
            line.find("\"error\"") == std::string::npos) {
            return -1; // a notification or a request from the server
        }
        const std::size_t at = line.rfind("\"id\":");
        return at == std::string::npos ? -1 : std::strtol(line.c_str() + at + 5, nullptr, 10);
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    long m_lastId = 0;
    std::string m_buffer;
    std::size_t m_scanned = 0;
};

// ---------------------------------------------------------------------------------------------
// find, as a process with its output read through a pipe.

std::string runFind(const std::string& tree, const std::string& pattern) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        setupError("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<std::string> argv{"find", tree, "-name", pattern};
    std::vector<char*> args;
    for (std::string& a : argv) {
        args.push_back(a.data());
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, "find", &actions, nullptr, args.data(), environ) != 0) {
        setupError("cannot run find");
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    const auto deadline = Clock::now() + std::chrono::milliseconds(answerTimeoutMs);
    while (waitReadable(out[0], deadline) && readInto(out[0], text) > 0) {
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return text;
}

// ---------------------------------------------------------------------------------------------
// Looking at answers (not timed).

std::string jsonQuoted(const std::string& text) {
    return QJsonDocument(QJsonArray{QString::fromStdString(text)})
        .toJson(QJsonDocument::Compact)
        .mid(1)
        .chopped(1)
        .toStdString();
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

// The JSON string that starts right after `key` (e.g. `"text":"`), decoded to UTF-8. Works on
// answers of any size, where a full parse would need several times their memory.
std::optional<std::string> stringAfter(const std::string& json, const std::string& key) {
    std::size_t i = json.find(key);
    if (i == std::string::npos) {
        return std::nullopt;
    }
    i += key.size();
    std::string out;
    out.reserve(json.size() / 2);
    auto hex4 = [&](std::size_t at) {
        return char32_t(std::stoul(json.substr(at, 4), nullptr, 16));
    };
    while (i < json.size()) {
        const std::size_t stop = json.find_first_of("\"\\", i);
        if (stop == std::string::npos) {
            return std::nullopt;
        }
        out.append(json, i, stop - i);
        if (json[stop] == '"') {
            return out;
        }
        const char e = json[stop + 1];
        i = stop + 2;
        switch (e) {
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        case 'b':
            out += '\b';
            break;
        case 'f':
            out += '\f';
            break;
        case 'u': {
            char32_t c = hex4(i);
            i += 4;
            if (c >= 0xD800 && c < 0xDC00 && json.compare(i, 2, "\\u") == 0) {
                c = 0x10000 + ((c - 0xD800) << 10) + (hex4(i + 2) - 0xDC00);
                i += 6;
            }
            appendUtf8(out, c);
            break;
        }
        default:
            out += e;
            break; // \" \\ \/
        }
    }
    return std::nullopt;
}

QJsonObject ourResult(const std::string& answer) {
    const QJsonObject frame = QJsonDocument::fromJson(QByteArray::fromStdString(answer)).object();
    if (frame.value(QStringLiteral("ok")).toBool() != true) {
        setupError("our call failed: " + answer.substr(0, 300));
    }
    return frame.value(QStringLiteral("result")).toObject();
}

std::string readWhole(const std::string& path) {
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        setupError("cannot read " + path);
    }
    return file.readAll().toStdString();
}

std::size_t linesIn(const std::string& text) {
    return text.empty() ? 0 : std::size_t(std::count(text.begin(), text.end(), '\n')) + 1;
}

std::string kib(std::size_t bytes) {
    char text[64];
    if (bytes >= 10 * 1024 * 1024) {
        std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / 1048576.0);
    } else {
        std::snprintf(text, sizeof text, "%.1f KiB", double(bytes) / 1024.0);
    }
    return text;
}

// Characters as the reader counts them: extended grapheme clusters.
qsizetype graphemes(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() > 0) {
        ++count;
    }
    return count;
}

int problems = 0;

void expect(bool ok, const std::string& what) {
    if (!ok) {
        std::printf("WRONG ANSWER: %s\n", what.c_str());
        ++problems;
    }
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc < 7) {
        std::fprintf(stderr, "usage: peer-bench PORT DEVICE RUNS WORK NODE PEER_JS [ONLY "
                             "[OUR_MCP_COMMAND...]]\n");
        return 2;
    }
    const quint16 port = quint16(std::atoi(argv[1]));
    const std::string device = argv[2];
    const int runs = std::max(1, std::atoi(argv[3]));
    // The peer is given absolute paths, whatever the caller's directory.
    char* resolved = ::realpath(argv[4], nullptr);
    if (!resolved) {
        setupError(std::string("no such directory: ") + argv[4]);
    }
    const std::string work = resolved;
    std::free(resolved);
    const std::string node = argv[5];
    const std::string peerJs = argv[6];
    const std::string only =
        "," +
        std::string(argc >= 8 ? argv[7]
                              : "list,read-small,read-large,search,mcp-read-small,mcp-search") +
        ",";
    std::vector<std::string> ourMcpCommand(argv + std::min(argc, 8), argv + argc);
    auto wanted = [&](const char* key) {
        return only.find("," + std::string(key) + ",") != std::string::npos;
    };
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    std::map<std::string, std::string> names;
    {
        const std::string text = readWhole(work + "/names.txt");
        std::size_t start = 0;
        while (start < text.size()) {
            std::size_t end = text.find('\n', start);
            end = end == std::string::npos ? text.size() : end;
            const std::string line = text.substr(start, end - start);
            const std::size_t eq = line.find('=');
            if (eq != std::string::npos) {
                names[line.substr(0, eq)] = line.substr(eq + 1);
            }
            start = end + 1;
        }
    }
    for (const char* key : {"list", "small", "large", "tree"}) {
        if (names[key].empty()) {
            setupError(std::string("no agent name for ") + key + " in names.txt");
        }
    }

    const std::string listDir = work + "/list-1000";
    const std::string smallFile = work + "/read-small/small.txt";
    const std::string largeFile = work + "/read-large/large.txt";
    const std::string treeDir = work + "/search-50k";
    const std::string wildcard = "quarterly-forecast-*.xlsx";

    Agent agent(port, device);
    Peer peer({node, peerJs, listDir, work + "/read-small", work + "/read-large", treeDir},
              work + "/peer.log");

    const std::string init = peer.request(
        "initialize",
        R"({"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"peer-bench","version":"1"}})");
    if (init.find("\"result\"") == std::string::npos) {
        setupError("the peer refused to initialise: " + init.substr(0, 300));
    }
    peer.notify("notifications/initialized");
    {
        const QJsonObject info = QJsonDocument::fromJson(QByteArray::fromStdString(init))
                                     .object()
                                     .value(QStringLiteral("result"))
                                     .toObject()
                                     .value(QStringLiteral("serverInfo"))
                                     .toObject();
        std::printf("peer: %s %s over stdio, one process for the whole run\n",
                    qPrintable(info.value(QStringLiteral("name")).toString()),
                    qPrintable(info.value(QStringLiteral("version")).toString()));
    }

    auto ours = [](const std::string& method, const std::string& params) {
        return "{\"method\":\"" + method + "\",\"params\":" + params + ",\"timeout_ms\":600000}";
    };
    auto tool = [](const std::string& name, const std::string& arguments) {
        return "{\"name\":\"" + name + "\",\"arguments\":" + arguments + "}";
    };

    struct Op {
        std::string key;
        std::string label;
        std::string ourBody;
        std::string peerParams;
        double target = 3; // peer / ours at least this
        bool withFind = false;
        // Ours over the Model Context Protocol (ourBody is then the tools/call params).
        bool viaMcp = false;
        std::string lastOurs, lastPeer, lastFind;
        std::vector<double> oursMs, peerMs, findMs;
    };
    auto op = [](std::string key, std::string label, std::string ourBody, std::string peerParams,
                 double target, bool withFind = false) {
        Op made;
        made.key = std::move(key);
        made.label = std::move(label);
        made.ourBody = std::move(ourBody);
        made.peerParams = std::move(peerParams);
        made.target = target;
        made.withFind = withFind;
        return made;
    };
    const std::string listBody =
        ours("local_list_files", "{\"path\":" + jsonQuoted(names["list"]) + "}");
    std::vector<Op> ops;
    if (wanted("list")) {
        ops.push_back(op("list", "list 1,000 vs list_directory", listBody,
                         tool("list_directory", "{\"path\":" + jsonQuoted(listDir) + "}"), 3));
        ops.push_back(
            op("list-sized", "list 1,000 vs ..._with_sizes", listBody,
               tool("list_directory_with_sizes", "{\"path\":" + jsonQuoted(listDir) + "}"), 3));
    }
    if (wanted("read-small")) {
        ops.push_back(op(
            "read-small", "read a 4 KiB file",
            ours("local_read_file", "{\"path\":" + jsonQuoted(names["small"] + "/small.txt") + "}"),
            tool("read_text_file", "{\"path\":" + jsonQuoted(smallFile) + "}"), 3));
    }
    if (wanted("search")) {
        ops.push_back(op("search", "search 50,000 files by name",
                         ours("local_search_files", "{\"query\":" + jsonQuoted(wildcard) + "}"),
                         tool("search_files", "{\"path\":" + jsonQuoted(treeDir) + ",\"pattern\":" +
                                                  jsonQuoted("**/" + wildcard) + "}"),
                         20, true));
    }
    if (wanted("read-large")) {
        ops.push_back(op(
            "read-large", "read a 100 MiB file",
            ours("local_read_file", "{\"path\":" + jsonQuoted(names["large"] + "/large.txt") + "}"),
            tool("read_text_file", "{\"path\":" + jsonQuoted(largeFile) + "}"), 3));
    }
    if (ops.empty()) {
        setupError("nothing to measure");
    }

    std::unique_ptr<Peer> ourMcp;
    if (wanted("mcp-read-small") || wanted("mcp-search")) {
        if (ourMcpCommand.empty()) {
            setupError("the mcp- operations need OUR_MCP_COMMAND");
        }
        ourMcp = std::make_unique<Peer>(ourMcpCommand, work + "/ours-mcp.log");
        const std::string hello = ourMcp->request(
            "initialize",
            R"({"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"peer-bench","version":"1"}})");
        if (hello.find("\"result\"") == std::string::npos) {
            setupError("our MCP server refused to initialise: " + hello.substr(0, 300));
        }
        ourMcp->notify("notifications/initialized");
        std::printf("ours over MCP: quillmar-companion mcp over stdio, handing calls to the "
                    "running companion\n");
        if (wanted("mcp-read-small")) {
            Op made = op("mcp-read-small", "MCP: read a 4 KiB file",
                         tool("local_read_file",
                              "{\"path\":" + jsonQuoted(names["small"] + "/small.txt") + "}"),
                         tool("read_text_file", "{\"path\":" + jsonQuoted(smallFile) + "}"), 3);
            made.viaMcp = true;
            ops.insert(ops.begin(), std::move(made));
        }
        if (wanted("mcp-search")) {
            Op made = op("mcp-search", "MCP: search 50,000 files",
                         tool("local_search_files", "{\"query\":" + jsonQuoted(wildcard) + "}"),
                         tool("search_files", "{\"path\":" + jsonQuoted(treeDir) + ",\"pattern\":" +
                                                  jsonQuoted("**/" + wildcard) + "}"),
                         20);
            made.viaMcp = true;
            ops.insert(ops.begin(), std::move(made));
        }
    }

    auto timeOurs = [&](Op& op) {
        const auto start = Clock::now();
        op.lastOurs =
            op.viaMcp ? ourMcp->request("tools/call", op.ourBody) : agent.call(op.ourBody);
        return millis(Clock::now() - start);
    };
    auto timePeer = [&](Op& op) {
        const auto start = Clock::now();
        op.lastPeer = peer.request("tools/call", op.peerParams);
        return millis(Clock::now() - start);
    };
    auto timeFind = [&](Op& op) {
        const auto start = Clock::now();
        op.lastFind = runFind(treeDir, wildcard);
        return millis(Clock::now() - start);
    };

    // One operation after the other, each with its own warm-up (page cache, the peer's JIT, the
    // companion's first calls) and then its interleaved runs. The 100 MiB read comes last: it
    // leaves the peer's heap large, and its collections would fall on whatever follows.
    std::printf("\nwhat each side answers (checked against the files):\n");
    for (Op& op : ops) {
        timeOurs(op);
        timePeer(op);
        if (op.withFind) {
            timeFind(op);
        }
        if (op.key == "list") {
            const QJsonObject r = ourResult(op.lastOurs);
            const auto text = stringAfter(op.lastPeer, "\"text\":\"");
            const std::size_t peerLines = text ? linesIn(*text) : 0;
            expect(r.value(QStringLiteral("count")).toInt() == 1000, "our listing count");
            expect(peerLines == 1000,
                   "the peer's listing has " + std::to_string(peerLines) + " lines");
            std::printf("  list   ours: %d items, each name, type, size_bytes, modified; sorted by "
                        "name (%s of JSON)\n",
                        r.value(QStringLiteral("count")).toInt(), kib(op.lastOurs.size()).c_str());
            std::printf("         peer, list_directory: %zu lines \"[FILE] name\" or \"[DIR] "
                        "name\" in directory order, no size or time (%s of JSON)\n",
                        peerLines, kib(op.lastPeer.size()).c_str());
        } else if (op.key == "list-sized") {
            const auto text = stringAfter(op.lastPeer, "\"text\":\"");
            const std::size_t peerLines = text ? linesIn(*text) : 0;
            expect(peerLines == 1003,
                   "the peer's sized listing has " + std::to_string(peerLines) + " lines");
            std::printf("         peer, list_directory_with_sizes: %zu entries with a rounded size "
                        "(\"3.91 MB\"), sorted by name, and a summary; no time (%s of JSON)\n",
                        peerLines - 3, kib(op.lastPeer.size()).c_str());
        } else if (op.viaMcp) {
            // Both answer in MCP's own shape; ours carries the result as structured content.
            const QJsonObject ours = QJsonDocument::fromJson(QByteArray::fromStdString(op.lastOurs))
                                         .object()
                                         .value(QStringLiteral("result"))
                                         .toObject();
            const QJsonObject result = ours.value(QStringLiteral("structuredContent")).toObject();
            const auto text = stringAfter(op.lastPeer, "\"text\":\"");
            expect(!ours.value(QStringLiteral("isError")).toBool(), op.label + ": ours failed");
            if (op.key == "mcp-read-small") {
                const std::string file = readWhole(smallFile);
                expect(result.value(QStringLiteral("content")).toString().toStdString() == file,
                       op.label + ": our content is not the file");
                expect(text && *text == file, op.label + ": the peer's text is not the file");
            } else {
                expect(result.value(QStringLiteral("count")).toInt() == 6,
                       op.label + ": our count");
                expect(text && linesIn(*text) == 6, op.label + ": the peer's count");
            }
            std::printf("  %s: ours %s, peer %s of JSON\n", op.label.c_str(),
                        kib(op.lastOurs.size()).c_str(), kib(op.lastPeer.size()).c_str());
        } else if (op.key == "read-small" || op.key == "read-large") {
            const bool small = op.key == "read-small";
            const std::string file = readWhole(small ? smallFile : largeFile);
            const QJsonObject r = ourResult(op.lastOurs);
            const QString content = r.value(QStringLiteral("content")).toString();
            const QByteArray bytes = content.toUtf8();
            const bool truncated = r.value(QStringLiteral("truncated")).toBool();
            const auto text = stringAfter(op.lastPeer, "\"text\":\"");
            const std::string label = small ? "read 4 KiB  " : "read 100 MiB";
            expect(std::string_view(file).substr(0, std::size_t(bytes.size())) ==
                       std::string_view(bytes.constData(), std::size_t(bytes.size())),
                   label + ": our content is not the file's beginning");
            expect(truncated == (std::size_t(bytes.size()) < file.size()),
                   label + ": our truncated flag");
            expect(text && *text == file, label + ": the peer's text is not the file");
            std::printf("  %s ours: %lld characters from the start (%s), truncated %s (%s of "
                        "JSON)\n",
                        label.c_str(), qlonglong(graphemes(content)),
                        kib(std::size_t(bytes.size())).c_str(), truncated ? "true" : "false",
                        kib(op.lastOurs.size()).c_str());
            std::printf("         peer: the whole file, %s, twice: in content and in "
                        "structuredContent (%s of JSON)\n",
                        kib(text ? text->size() : 0).c_str(), kib(op.lastPeer.size()).c_str());
        } else if (op.key == "search") {
            const QJsonObject r = ourResult(op.lastOurs);
            const auto text = stringAfter(op.lastPeer, "\"text\":\"");
            const std::size_t peerLines = text ? linesIn(*text) : 0;
            const std::size_t findLines = linesIn(op.lastFind) - (op.lastFind.empty() ? 0 : 1);
            expect(r.value(QStringLiteral("count")).toInt() == 6, "our search count");
            expect(peerLines == 6, "the peer's search found " + std::to_string(peerLines));
            expect(findLines == 6, "find found " + std::to_string(findLines));
            const QJsonArray matches = r.value(QStringLiteral("matches")).toArray();
            std::printf("  search ours: %d matches, agent paths such as %s\n",
                        r.value(QStringLiteral("count")).toInt(),
                        qPrintable(matches.isEmpty() ? QString() : matches.first().toString()));
            std::printf("         peer: %zu absolute paths such as %s\n", peerLines,
                        text ? text->substr(0, text->find('\n')).c_str() : "");
            std::printf("         find: %zu paths\n", findLines);
        }
        // Ours first in even runs, the peer first in odd ones.
        for (int run = 0; run < runs; ++run) {
            if (run % 2 == 0) {
                op.oursMs.push_back(timeOurs(op));
            }
            op.peerMs.push_back(timePeer(op));
            if (op.withFind) {
                op.findMs.push_back(timeFind(op));
            }
            if (run % 2 == 1) {
                op.oursMs.push_back(timeOurs(op));
            }
        }
        op.lastPeer.clear();
        op.lastPeer.shrink_to_fit();
    }

    int misses = 0;
    auto verdict = [&](const std::string& key, const std::string& label, double a, double b,
                       double ratio, double target, bool atLeast) {
        const bool pass = atLeast ? ratio >= target : ratio <= target;
        misses += pass ? 0 : 1;
        char targetText[32];
        std::snprintf(targetText, sizeof targetText, "%s %.1fx", atLeast ? ">=" : "<=", target);
        std::printf("%-30s %10.2f ms %10.2f ms %9.2fx %9s  %s\n", label.c_str(), a, b, ratio,
                    targetText, pass ? "PASS" : "MISS");
        std::fprintf(stderr, "ratio %s %.3f %s %s\n", key.c_str(), ratio, targetText,
                     pass ? "PASS" : "MISS");
    };
    std::printf("\ntime to an answer, median of %d interleaved runs after one warm-up run each:\n",
                runs);
    std::printf("%-30s %13s %13s %10s %9s  %s\n", "operation", "ours", "peer", "peer/ours",
                "target", "result");
    for (const Op& op : ops) {
        const double o = median(op.oursMs);
        const double p = median(op.peerMs);
        verdict(op.key, op.label, o, p, p / o, op.target, true);
    }
    for (const Op& op : ops) {
        if (op.withFind) {
            const double o = median(op.oursMs);
            const double f = median(op.findMs);
            std::printf("\n%-30s %13s %13s %10s %9s  %s\n", "", "ours", "find", "ours/find",
                        "target", "result");
            verdict(op.key + "-vs-find", "search: ours vs find -name", o, f, o / f, 1.5, false);
        }
    }
    if (problems > 0) {
        std::printf("\n%d wrong answer(s), see above\n", problems);
    }
    return misses + problems > 0 ? 1 : 0;
}
