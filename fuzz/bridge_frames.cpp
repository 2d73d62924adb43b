// Incoming bridge frames, over a real WebSocket. One BridgeClient stays connected for the whole
// run to a QWebSocketServer on 127.0.0.1; each input is a burst of frames sent by the server,
// text or binary, followed by one known call whose answer marks the end of the burst. Then:
//  - nothing crashed, and the end marker was answered within a few seconds;
//  - every frame that is a well-formed call (UTF-8, a JSON object with a string "type" equal to
//    "call") got exactly one reply, with its req_id, in order, and nothing else got one;
//  - every reply is a text frame of the result shape: type, req_id, ok, and result or error;
//  - "hello" reported online, nothing else touched the status, the connection stayed up.
//
// Input: byte 0 picks the tool dispatcher: 'F' the real file tools on a small tree of their own
// (writes allowed in its folder "Scratch" only), anything else a stub that answers with the
// call's params (so {"error": "..."} in the params makes a failure) and that suspends on
// {"wait": "timer"} or runs a nested event loop on {"wait": "nested"}, as a write prompt
// does. The rest is cut into frames at 0x1E; a frame's first byte 'B' makes it binary, any
// other first byte text, and is not part of the frame.

#include "BridgeClient.h"
#include "BridgeScheduler.h"
#include "FileService.h"
#include "FuzzCheck.h"
#include "JsonReader.h"
#include "PathResolver.h"
#include "ToolError.h"
#include "WriteApprover.h"

#include <QCoreApplication>
#include <QCoroTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTemporaryDir>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>

#include <cstdlib>
#include <vector>

namespace {

constexpr char frameSeparator = 0x1e;
constexpr qsizetype maxFrames = 48;
constexpr int answerDeadlineMs = 5000;
const QString onlineText = QStringLiteral("Connected to Quillmar");

using Status = std::pair<bool, QString>;

// The client's timers (keep-alive, reconnection, handshake) never fire: a run must not depend
// on the wall clock, and any reconnection shows up as a status report instead.
class StoppedClock final : public BridgeScheduler {
public:
    TimerId schedule(std::chrono::milliseconds, Callback) override { return ++m_last; }
    void cancel(TimerId) override {}

private:
    TimerId m_last = 0;
};

QCoro::Task<ToolResult> echoDispatch(QJsonObject params) {
    const QString wait = params.value(QStringLiteral("wait")).toString();
    if (wait == u"timer") {
        co_await QCoro::sleepFor(std::chrono::milliseconds(0));
    } else if (wait == u"nested") {
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
    }
    co_return params;
}

// Strict UTF-8, ICU's converter: nothing when the bytes are not well-formed.
std::optional<QString> strictUtf8(const QByteArray& bytes) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open("UTF-8", &status);
    FUZZ_CHECK(U_SUCCESS(status));
    ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    std::vector<UChar> out(static_cast<std::size_t>(bytes.size()) + 2);
    const int32_t length =
        ucnv_toUChars(converter, out.data(), static_cast<int32_t>(out.size()), bytes.constData(),
                      static_cast<int32_t>(bytes.size()), &status);
    ucnv_close(converter);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    return QString(reinterpret_cast<const QChar*>(out.data()), length);
}

struct Frame {
    bool binary = false;
    QByteArray bytes;
};

// What the client must do with one frame.
struct Expectation {
    bool hello = false;
    bool call = false;
    QString reqId;
    QJsonObject params;
};

Expectation expectationFor(const Frame& frame) {
    Expectation expectation;
    std::optional<QString> text;
    if (frame.binary) {
        text = strictUtf8(frame.bytes);
    } else {
        text = QString::fromUtf8(frame.bytes); // what the server actually sends
    }
    if (!text) {
        return expectation;
    }
    QJsonParseError error;
    const QJsonDocument document = JsonReader::parse(*text, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return expectation;
    }
    const QJsonObject object = document.object();
    const QJsonValue type = object.value(QStringLiteral("type"));
    if (!type.isString()) {
        return expectation;
    }
    expectation.hello = type.toString() == u"hello";
    expectation.call = type.toString() == u"call";
    const QJsonValue reqId = object.value(QStringLiteral("req_id"));
    expectation.reqId = reqId.isString() ? reqId.toString() : QString();
    const QJsonValue params = object.value(QStringLiteral("params"));
    expectation.params = params.isObject() ? params.toObject() : QJsonObject();
    return expectation;
}

class Bench : public BridgeCallHandler {
public:
    Bench() : m_server(QStringLiteral("fuzz-service"), QWebSocketServer::NonSecureMode) {
        FUZZ_CHECK(m_server.listen(QHostAddress::LocalHost, 0));
        m_deadline.setSingleShot(true);
        QObject::connect(&m_deadline, &QTimer::timeout, [this] {
            if (m_waiting) {
                m_waiting->quit();
            }
        });
        QObject::connect(&m_server, &QWebSocketServer::newConnection, [this] {
            while (QWebSocket* socket = m_server.nextPendingConnection()) {
                ++connections;
                m_socket = socket;
                QObject::connect(socket, &QWebSocket::textMessageReceived,
                                 [this](const QString& text) {
                                     replies.append(text);
                                     if (m_waiting && isEndMarker(text)) {
                                         m_waiting->quit();
                                     }
                                 });
                QObject::connect(socket, &QWebSocket::binaryMessageReceived,
                                 [this](const QByteArray&) { ++binaryReplies; });
            }
        });
        makeTree();

        client = std::make_unique<BridgeClient>(this, std::make_unique<StoppedClock>());
        QObject::connect(client.get(), &BridgeClient::statusChanged,
                         [this](bool up, const QString& text) {
                             statuses.append({up, text});
                         });
        client->connect(QStringLiteral("fuzz-token"),
                        QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()));
        QElapsedTimer clock;
        clock.start();
        while (!(m_socket && m_socket->state() == QAbstractSocket::ConnectedState) &&
               clock.elapsed() < answerDeadlineMs) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        FUZZ_CHECK(m_socket, QStringLiteral("the client never connected"));
        m_socket->sendTextMessage(QStringLiteral(R"({"type":"hello"})"));
        while (statuses.isEmpty() || statuses.back() != Status(true, onlineText)) {
            FUZZ_CHECK(clock.elapsed() < answerDeadlineMs, QStringLiteral("no hello"));
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
    }

    void run(const uint8_t* data, size_t size);
    void removeTree() { m_tree.remove(); }

    // The stub echoes; otherwise the file tools run over the tree.
    QCoro::Task<ToolResult> runCall(QString method, QJsonObject params) override {
        if (m_stub) {
            return echoDispatch(std::move(params));
        }
        return FileService::run(std::move(method), std::move(params), m_folders, m_approve);
    }

    std::unique_ptr<BridgeClient> client;
    QStringList replies;
    int binaryReplies = 0;
    int connections = 0;
    QList<Status> statuses;

private:
    bool isEndMarker(const QString& reply) const {
        return JsonReader::parse(reply).object().value(QStringLiteral("req_id")) == m_marker;
    }
    void makeTree();
    void resetScratch();
    void checkReply(const QString& reply, const Expectation& expectation, bool stub,
                    const Detail& detail);

    QWebSocketServer m_server;
    QPointer<QWebSocket> m_socket;
    QEventLoop* m_waiting = nullptr;
    QTimer m_deadline;
    QString m_marker;
    quint64 m_runs = 0;

    QTemporaryDir m_tree;
    QList<SharedFolder> m_folders;
    bool m_stub = true;
    WriteApprover m_approve;
    QString m_scratch;
    bool m_scratchTouched = false;
};

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), path);
}

void Bench::makeTree() {
    FUZZ_CHECK(m_tree.isValid());
    const QDir root(m_tree.path());
    FUZZ_CHECK(root.mkpath(QStringLiteral("Docs/sub")) && root.mkpath(QStringLiteral("Notes")));
    writeFile(root.filePath(QStringLiteral("Docs/a.txt")), QByteArrayLiteral("alpha\nbeta\n"));
    writeFile(root.filePath(QStringLiteral("Docs/sub/b.md")),
              QByteArrayLiteral("e\xcc\x81 \xf0\x9f\x87\xab\xf0\x9f\x87\xb7 \xff\xfe"));
    writeFile(root.filePath(QStringLiteral("Notes/n.txt")), QByteArray(300, 'n'));
    m_scratch = root.filePath(QStringLiteral("Scratch"));
    resetScratch();
    m_folders = {
        SharedFolder{QUuid::createUuid(), QStringLiteral("Docs"),
                     root.filePath(QStringLiteral("Docs")), std::nullopt},
        SharedFolder{QUuid::createUuid(), QStringLiteral("Notes"),
                     root.filePath(QStringLiteral("Notes")), std::nullopt},
        SharedFolder{QUuid::createUuid(), QStringLiteral("Scratch"), m_scratch, std::nullopt},
    };

    // Writes are approved inside Scratch only, so the other folders stay as they are and runs
    // stay repeatable. Whatever is approved must lie inside the tree.
    m_approve = [this](QString path, qint64) -> QCoro::Task<bool> {
        PathResolver::Resolved resolved;
        try {
            resolved = PathResolver::resolve(path, m_folders);
        } catch (const ToolError& error) {
            fuzzFail("a write was put to the user for a path that does not resolve",
                     fuzzQuote(path) + u' ' + error.message());
        }
        FUZZ_CHECK(resolved.item.startsWith(QDir(m_tree.path()).canonicalPath() + u'/') ||
                       resolved.item.startsWith(m_tree.path() + u'/'),
                   fuzzQuote(resolved.item));
        const bool allowed = resolved.root == m_scratch;
        m_scratchTouched = m_scratchTouched || allowed;
        co_return allowed;
    };
}

void Bench::resetScratch() {
    QDir scratch(m_scratch);
    if (scratch.exists()) {
        FUZZ_CHECK(scratch.removeRecursively(), m_scratch);
    }
    FUZZ_CHECK(QDir().mkpath(m_scratch), m_scratch);
    m_scratchTouched = false;
}

void Bench::checkReply(const QString& reply, const Expectation& expectation, bool stub,
                       const Detail& detail) {
    const auto context = [&] { return detail() + QStringLiteral("\nreply ") + fuzzQuote(reply); };
    QJsonParseError error;
    const QJsonDocument document = JsonReader::parse(reply, &error);
    FUZZ_CHECK(error.error == QJsonParseError::NoError && document.isObject(), context());
    const QJsonObject object = document.object();
    FUZZ_CHECK(object.size() == 4, context());
    FUZZ_CHECK(object.value(QStringLiteral("type")) == QStringLiteral("result"), context());
    FUZZ_CHECK(object.value(QStringLiteral("req_id")) == expectation.reqId,
               context() + QStringLiteral("\nexpected req_id ") + fuzzQuote(expectation.reqId));
    const QJsonValue ok = object.value(QStringLiteral("ok"));
    FUZZ_CHECK(ok.isBool(), context());
    if (ok.toBool()) {
        FUZZ_CHECK(object.value(QStringLiteral("result")).isObject(), context());
    } else {
        FUZZ_CHECK(object.value(QStringLiteral("error")).isString(), context());
    }
    if (!stub) {
        return;
    }
    // The stub answers with the params: a string "error" in them makes a failure.
    const QJsonValue stubError = expectation.params.value(QStringLiteral("error"));
    if (stubError.isString()) {
        FUZZ_CHECK(!ok.toBool() && object.value(QStringLiteral("error")) == stubError, context());
    } else {
        FUZZ_CHECK(ok.toBool() &&
                       object.value(QStringLiteral("result")).toObject() == expectation.params,
                   context());
    }
}

void Bench::run(const uint8_t* data, size_t size) {
    if (size == 0) {
        return;
    }
    const bool stub = data[0] != 'F';
    m_stub = stub;

    QList<Frame> frames;
    const QList<QByteArray> records = fuzzFields(data + 1, size - 1, frameSeparator);
    for (const QByteArray& record : records) {
        if (frames.size() == maxFrames) {
            break;
        }
        const bool binary = record.startsWith('B');
        frames.append(Frame{binary, record.isEmpty() ? QByteArray() : record.mid(1)});
    }

    replies.clear();
    binaryReplies = 0;
    statuses.clear();
    m_marker = QStringLiteral("end-of-burst-%1").arg(++m_runs);

    QList<Expectation> calls;
    qsizetype hellos = 0;
    const Detail detail = [&frames] {
        QString text = QStringLiteral("frames:");
        for (const Frame& frame : frames) {
            text += QStringLiteral("\n  ") +
                    (frame.binary ? QStringLiteral("binary ") : QString()) +
                    fuzzQuote(QString::fromUtf8(frame.bytes));
        }
        return text;
    };
    for (const Frame& frame : frames) {
        const Expectation expectation = expectationFor(frame);
        hellos += expectation.hello ? 1 : 0;
        if (expectation.call) {
            calls.append(expectation);
        }
        if (frame.binary) {
            m_socket->sendBinaryMessage(frame.bytes);
        } else {
            m_socket->sendTextMessage(QString::fromUtf8(frame.bytes));
        }
    }
    const QJsonObject end{{QStringLiteral("type"), QStringLiteral("call")},
                          {QStringLiteral("req_id"), m_marker},
                          {QStringLiteral("method"), QStringLiteral("end")},
                          {QStringLiteral("params"), QJsonObject()}};
    m_socket->sendTextMessage(QString::fromUtf8(QJsonDocument(end).toJson(QJsonDocument::Compact)));
    calls.append(Expectation{false, true, m_marker, QJsonObject()});

    QEventLoop loop;
    m_waiting = &loop;
    m_deadline.start(answerDeadlineMs);
    if (replies.isEmpty() || !isEndMarker(replies.back())) {
        loop.exec();
    }
    m_deadline.stop();
    m_waiting = nullptr;
    // Anything still under way that should not be, and what was left for deletion: a run ends
    // with as much memory in use as it began with, so libFuzzer's leak check stays quiet.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    const bool answered = !replies.isEmpty() && isEndMarker(replies.back());
    FUZZ_CHECK(answered, detail() + QStringLiteral("\nthe burst was not answered in time"));
    FUZZ_CHECK(binaryReplies == 0, detail());
    FUZZ_CHECK(
        replies.size() == calls.size(),
        detail() +
            QStringLiteral("\n%1 replies for %2 calls:\n").arg(replies.size()).arg(calls.size()) +
            replies.join(u'\n'));
    for (qsizetype i = 0; i < calls.size(); ++i) {
        checkReply(replies[i], calls[i], stub, detail);
    }
    FUZZ_CHECK(statuses.size() == hellos, detail());
    for (const auto& status : statuses) {
        FUZZ_CHECK(status == Status(true, onlineText), detail());
    }
    FUZZ_CHECK(connections == 1 && m_socket && m_socket->state() == QAbstractSocket::ConnectedState,
               detail() + QStringLiteral("\nthe connection did not stay up"));

    if (m_scratchTouched) {
        resetScratch();
    }
}

Bench* bench = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // Lives for the whole process, like the client and the server.
    new QCoreApplication(*argc, *argv);
    bench = new Bench;
    // The bench is never destroyed; its temporary tree goes when the process ends normally.
    std::atexit([] { bench->removeTree(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    bench->run(data, size);
    return 0;
}
