// The driver of bench/startup/run: how long the companion takes from being started to being
// connected to the service. For every run it
//
//   1. waits until the dev service reports the device offline (the previous run is gone);
//   2. reads the clock and spawns the command right away (posix_spawn, standard output into a
//      pipe, standard input from /dev/null);
//   3. waits, in one poll() loop, for two things: the status line on the command's standard
//      output, and the dev service reporting the device online (GET /api/v1/agent/devices on
//      one keep-alive connection, asked again every POLL_MS milliseconds);
//   4. stops the command (SIGTERM, SIGKILL after 5 s) and reaps it.
//
// The first run is a warm-up and is not counted.
//
//   startup-bench PORT RUNS POLL_MS LINE LOG -- COMMAND [ARGUMENTS...]
//
// LINE is the status line to wait for ("Connected to Quillmar"), or "-" when the command prints
// none (the desktop application): then only the service's view is taken. The command's standard
// error is appended to LOG. The environment is passed on unchanged.
//
// Prints one line per run, then machine-readable lines
//   result line MEDIAN_MS P90_MS MIN_MS MAX_MS
//   result online MEDIAN_MS P90_MS MIN_MS MAX_MS
// (p90 by nearest rank). Exit status: 0 when every run connected, 2 on any setup error or when
// a run did not connect within 20 s.

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
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

constexpr auto runLimit = std::chrono::seconds(20);

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "startup-bench: %s\n", message.c_str());
    std::exit(2);
}

double millis(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// One keep-alive HTTP/1.1 connection to the dev service and the answer being read on it.
struct Service {
    int fd = -1;
    std::string path;
    std::string buffer;
    bool waiting = false;
};

void openService(Service& service, int port) {
    service.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (service.fd < 0) {
        fail("no socket");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    ::setsockopt(service.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(service.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("cannot connect to the dev service on 127.0.0.1:" + std::to_string(port));
    }
    service.path = "/api/v1/agent/devices";
}

void sendRequest(Service& service) {
    const std::string request =
        "GET " + service.path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n";
    if (::send(service.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
        fail("the dev service closed the connection");
    }
    service.waiting = true;
}

// The body of a complete answer at the front of the buffer, taken out of it; nothing while the
// answer is still incomplete.
std::optional<std::string> takeAnswer(Service& service) {
    const std::size_t headEnd = service.buffer.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
        return std::nullopt;
    }
    std::string head = service.buffer.substr(0, headEnd);
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::size_t at = head.find("content-length:");
    if (at == std::string::npos) {
        fail("an answer of the dev service without Content-Length");
    }
    const std::size_t length = std::strtoul(head.c_str() + at + 15, nullptr, 10);
    if (service.buffer.size() < headEnd + 4 + length) {
        return std::nullopt;
    }
    std::string body = service.buffer.substr(headEnd + 4, length);
    service.buffer.erase(0, headEnd + 4 + length);
    service.waiting = false;
    return body;
}

// Reads what the socket has; fails when the service went away.
void receive(Service& service) {
    char chunk[16384];
    const ssize_t got = ::recv(service.fd, chunk, sizeof chunk, 0);
    if (got <= 0) {
        fail("the dev service closed the connection");
    }
    service.buffer.append(chunk, static_cast<std::size_t>(got));
}

bool reportsOnline(const std::string& body) {
    return body.find("\"online\":true") != std::string::npos;
}

// Asks until the device is offline, for at most 10 s.
void awaitOffline(Service& service) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        sendRequest(service);
        std::optional<std::string> body;
        while (!(body = takeAnswer(service))) {
            receive(service);
        }
        if (body->find("\"device_id\"") == std::string::npos) {
            fail("the dev service knows no device: " + *body);
        }
        if (!reportsOnline(*body)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    fail("the device is still online 10 s after the previous run");
}

void stopChild(pid_t pid) {
    ::kill(pid, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < deadline) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// Times from the spawn to the status line and to the service's "online".
struct Sample {
    std::optional<double> lineMs;
    std::optional<double> onlineMs;
};

Sample runOnce(Service& service, const std::vector<char*>& command, const std::string& line,
               const std::string& log, std::chrono::milliseconds pollEvery) {
    awaitOffline(service);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        fail("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);

    pid_t pid = -1;
    const auto start = Clock::now();
    const int spawned =
        ::posix_spawn(&pid, command.front(), &actions, nullptr, command.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        fail(std::string("cannot start ") + command.front() + ": " + std::strerror(spawned));
    }

    Sample sample;
    const bool wantLine = line != "-";
    std::string output;
    bool outputOpen = true;
    auto nextAsk = start;
    while (!sample.onlineMs || (wantLine && !sample.lineMs)) {
        const auto now = Clock::now();
        if (now - start > runLimit) {
            stopChild(pid);
            ::close(out[0]);
            fail("no connection within 20 s (see " + log + ")");
        }
        if (!sample.onlineMs && !service.waiting && now >= nextAsk) {
            sendRequest(service);
            nextAsk = now + pollEvery;
        }
        pollfd fds[2] = {{service.fd, POLLIN, 0}, {outputOpen ? out[0] : -1, POLLIN, 0}};
        int timeout = 100;
        if (!sample.onlineMs && !service.waiting) {
            timeout = static_cast<int>(std::max<long long>(
                0, std::chrono::ceil<std::chrono::milliseconds>(nextAsk - Clock::now()).count()));
        }
        if (::poll(fds, 2, timeout) < 0) {
            continue;
        }
        const auto seen = Clock::now();
        if (fds[1].revents & (POLLIN | POLLHUP)) {
            char chunk[4096];
            const ssize_t got = ::read(out[0], chunk, sizeof chunk);
            if (got <= 0) {
                outputOpen = false;
                if (wantLine && !sample.lineMs) {
                    stopChild(pid);
                    ::close(out[0]);
                    fail("the command ended its output before \"" + line + "\" (see " + log + ")");
                }
            } else {
                output.append(chunk, static_cast<std::size_t>(got));
                if (wantLine && !sample.lineMs && output.find(line + "\n") != std::string::npos) {
                    sample.lineMs = millis(seen - start);
                }
            }
        }
        if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            receive(service);
            if (const std::optional<std::string> body = takeAnswer(service)) {
                if (!sample.onlineMs && reportsOnline(*body)) {
                    sample.onlineMs = millis(seen - start);
                }
            }
        }
    }
    // An answer still on its way belongs to this run.
    while (service.waiting) {
        receive(service);
        takeAnswer(service);
    }
    stopChild(pid);
    ::close(out[0]);
    return sample;
}

double quantile(std::vector<double> values, double q) {
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

void printResult(const char* key, const std::vector<double>& values) {
    if (values.empty()) {
        return;
    }
    std::printf("result %s %.1f %.1f %.1f %.1f\n", key, median(values), quantile(values, 0.9),
                *std::min_element(values.begin(), values.end()),
                *std::max_element(values.begin(), values.end()));
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc < 8 || std::strcmp(argv[6], "--") != 0) {
        std::fprintf(stderr,
                     "usage: startup-bench PORT RUNS POLL_MS LINE LOG -- COMMAND [ARGUMENTS...]\n");
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const int runs = std::atoi(argv[2]);
    const int pollMs = std::atoi(argv[3]);
    const std::string line = argv[4];
    const std::string log = argv[5];
    if (port <= 0 || port > 65535 || runs <= 0 || pollMs <= 0) {
        fail("PORT, RUNS and POLL_MS must be positive numbers");
    }
    std::vector<char*> command(argv + 7, argv + argc);
    command.push_back(nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    Service service;
    openService(service, port);

    std::vector<double> lines;
    std::vector<double> onlines;
    for (int run = 0; run <= runs; ++run) {
        const Sample sample =
            runOnce(service, command, line, log, std::chrono::milliseconds(pollMs));
        const double online = sample.onlineMs.value_or(0.0);
        if (sample.lineMs) {
            std::printf("%-8s status line %8.1f ms   service online %8.1f ms\n",
                        run == 0 ? "warm-up" : ("run " + std::to_string(run)).c_str(),
                        *sample.lineMs, online);
        } else {
            std::printf("%-8s service online %8.1f ms\n",
                        run == 0 ? "warm-up" : ("run " + std::to_string(run)).c_str(), online);
        }
        std::fflush(stdout);
        if (run == 0) {
            continue;
        }
        if (sample.lineMs) {
            lines.push_back(*sample.lineMs);
        }
        onlines.push_back(online);
    }
    awaitOffline(service);
    printResult("line", lines);
    printResult("online", onlines);
    ::close(service.fd);
    return 0;
}
