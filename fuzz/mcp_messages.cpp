// Messages from a local agent to the MCP server, one a line. Each input is cut into lines at
// '\n' and given to one McpServer whose tool runner answers at once (the call's own arguments,
// or an error when they hold "error"), or after the event loop has turned. Then:
//  - nothing crashed, and every answer is one line of a JSON-RPC 2.0 object;
//  - every line that is a request (a JSON object with "jsonrpc": "2.0", a string "method", a
//    string or integer "id" and, if any, object "params") got exactly one answer with its id,
//    a "result" or an "error" with an integer code and a text; a line that is a notification
//    (no "id") or an answer to the server got none;
//  - a tools/call answer is a result with text content and isError, or error -32602 for a
//    tool that does not exist;
//  - every call that was started has been answered when the loop is done.
//
// Input: byte 0 selects the runner ('w' waits for the event loop), the rest is the lines.

#include "FileService.h"
#include "FuzzCheck.h"
#include "JsonReader.h"
#include "McpServer.h"
#include "ToolResult.h"

#include <QCoreApplication>
#include <QCoroTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace {

QCoreApplication* application() {
    static int argc = 1;
    static char name[] = "fuzz_mcp_messages";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    return &app;
}

bool waitForLoop = false;

QCoro::Task<ToolResult> answer(QString, QJsonObject params, QString) {
    if (waitForLoop) {
        QTimer timer;
        timer.setSingleShot(true);
        timer.start(0);
        co_await timer;
    }
    const QJsonValue error = params.value(QStringLiteral("error"));
    if (error.isString()) {
        co_return ToolResult(FileService::errorObject(error.toString()));
    }
    co_return ToolResult(params);
}

// A string, or a number that is an integer a 64-bit signed value holds exactly.
bool validId(const QJsonValue& id) {
    return id.isString() || (id.isDouble() && id.toDouble() == double(id.toInteger()));
}

// The id a line is answered under, if it is a request: exactly one answer is due.
struct Expectation {
    bool answered = false;
    QJsonValue id;
    bool toolCall = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    application();
    if (size == 0) {
        return 0;
    }
    waitForLoop = data[0] == 'w';
    const QByteArray input(reinterpret_cast<const char*>(data) + 1, qsizetype(size) - 1);
    const auto detail = [&] {
        return QStringLiteral("input ") + fuzzQuote(QString::fromUtf8(input));
    };

    McpServer server(&answer, QStringLiteral("1.0"));
    QList<QJsonObject> answers;
    QObject::connect(&server, &McpServer::message, [&](const QByteArray& line) {
        FUZZ_CHECK(!line.contains('\n'), detail());
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line, &error);
        FUZZ_CHECK(error.error == QJsonParseError::NoError && document.isObject(),
                   detail() + QStringLiteral("\nanswer ") + QString::fromUtf8(line));
        const QJsonObject object = document.object();
        FUZZ_CHECK(object.value(QStringLiteral("jsonrpc")) == QJsonValue(QStringLiteral("2.0")),
                   detail());
        FUZZ_CHECK(object.contains(QStringLiteral("result")) !=
                       object.contains(QStringLiteral("error")),
                   detail());
        if (object.contains(QStringLiteral("error"))) {
            const QJsonObject e = object.value(QStringLiteral("error")).toObject();
            FUZZ_CHECK(e.value(QStringLiteral("code")).isDouble() &&
                           e.value(QStringLiteral("message")).isString(),
                       detail());
        }
        answers.append(object);
    });

    QList<Expectation> due;
    for (const QByteArray& line : input.split('\n')) {
        QJsonParseError error;
        const QJsonDocument document = JsonReader::parse(line, &error);
        const QJsonObject object = document.object();
        const QJsonValue params = object.value(QStringLiteral("params"));
        const bool twoPointZero =
            object.value(QStringLiteral("jsonrpc")) == QJsonValue(QStringLiteral("2.0"));
        const bool method = object.value(QStringLiteral("method")).isString();
        const bool answerToServer =
            object.contains(QStringLiteral("result")) || object.contains(QStringLiteral("error"));
        // Anything with a usable id is answered under it, mistakes included, except an answer
        // to the server (which sends no requests).
        if (error.error == QJsonParseError::NoError && document.isObject() &&
            object.contains(QStringLiteral("id")) && validId(object.value(QStringLiteral("id"))) &&
            (!twoPointZero || method || !answerToServer)) {
            const bool toolCall = twoPointZero &&
                                  object.value(QStringLiteral("method")) ==
                                      QJsonValue(QStringLiteral("tools/call")) &&
                                  (params.isUndefined() || params.isObject());
            due.append({false, object.value(QStringLiteral("id")), toolCall});
        }
        server.receive(line);
    }
    for (int round = 0; round < 100 && server.callsInFlight() > 0; ++round) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QCoreApplication::sendPostedEvents();
    }
    FUZZ_CHECK(server.callsInFlight() == 0, detail());

    // Each request's answer, in any order (calls may finish after later requests). Ids may
    // repeat: an answer goes to a request of its kind when there is one (a tool's result, or
    // an unknown tool's error, to a tools/call; anything else to another request).
    for (const QJsonObject& answer : std::as_const(answers)) {
        const QJsonValue id = answer.value(QStringLiteral("id"));
        const QJsonObject result = answer.value(QStringLiteral("result")).toObject();
        const int code = answer.value(QStringLiteral("error")).toObject().value(u"code"_qs).toInt();
        const bool toolResult = result.contains(QStringLiteral("content"));
        const bool fitsToolCall = toolResult || (answer.contains(QStringLiteral("error")) &&
                                                 code == McpServer::InvalidParams);
        Expectation* chosen = nullptr;
        for (Expectation& expectation : due) {
            if (!expectation.answered && expectation.id == id &&
                (expectation.toolCall ? fitsToolCall : !toolResult)) {
                chosen = &expectation;
                break;
            }
        }
        if (!chosen) {
            FUZZ_CHECK(id.isNull() && answer.contains(QStringLiteral("error")),
                       detail() + QStringLiteral("\nunexpected answer ") +
                           QString::fromUtf8(QJsonDocument(answer).toJson(QJsonDocument::Compact)));
            continue;
        }
        chosen->answered = true;
        if (chosen->toolCall && toolResult) {
            FUZZ_CHECK(result.value(QStringLiteral("isError")).isBool(), detail());
            const QJsonObject text =
                result.value(QStringLiteral("content")).toArray().at(0).toObject();
            FUZZ_CHECK(text.value(QStringLiteral("type")) == QJsonValue(QStringLiteral("text")) &&
                           text.value(QStringLiteral("text")).isString(),
                       detail());
        }
    }
    for (const Expectation& expectation : std::as_const(due)) {
        FUZZ_CHECK(expectation.answered, detail());
    }
    return 0;
}
