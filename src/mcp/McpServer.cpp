#include "McpServer.h"

#include "CompactJson.h"
#include "JsonReader.h"
#include "McpTools.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcMcp, "quillmar.mcp", QtWarningMsg)

namespace {

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// One value as compact JSON text.
QByteArray compactValue(const QJsonValue& value) {
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

bool validId(const QJsonValue& id) {
    return id.isString() || (id.isDouble() && id.toDouble() == double(id.toInteger()));
}

} // namespace

McpServer::McpServer(ToolRunner runner, QString version, QObject* parent)
    : QObject(parent), m_runner(std::move(runner)), m_version(std::move(version)) {}

QStringList McpServer::protocolVersions() {
    return {QStringLiteral("2025-11-25"), QStringLiteral("2025-06-18"),
            QStringLiteral("2025-03-26"), QStringLiteral("2024-11-05")};
}

void McpServer::respond(const QJsonValue& id, const QJsonObject& result) {
    emit message(compact(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                                     {QStringLiteral("id"), id},
                                     {QStringLiteral("result"), result}}));
}

void McpServer::fail(const QJsonValue& id, int code, const QString& text) {
    emit message(compact(
        QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                    {QStringLiteral("id"), id},
                    {QStringLiteral("error"), QJsonObject{{QStringLiteral("code"), code},
                                                          {QStringLiteral("message"), text}}}}));
}

QByteArray McpServer::tooLong() const {
    return compact(QJsonObject{
        {QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
        {QStringLiteral("id"), QJsonValue::Null},
        {QStringLiteral("error"),
         QJsonObject{{QStringLiteral("code"), InvalidRequest},
                     {QStringLiteral("message"),
                      QStringLiteral("The message is longer than %1 MiB and was dropped.")
                          .arg(longestLine / (1024 * 1024))}}}});
}

void McpServer::receive(const QByteArray& line) {
    if (line.trimmed().isEmpty()) {
        return;
    }
    QJsonParseError parseError;
    const QJsonDocument document = JsonReader::parse(line, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        fail(QJsonValue::Null, ParseError,
             QStringLiteral("Parse error: %1 at offset %2.")
                 .arg(parseError.errorString())
                 .arg(parseError.offset));
        return;
    }
    if (document.isArray()) {
        fail(QJsonValue::Null, InvalidRequest,
             QStringLiteral("Batches are not supported: send one message a line."));
        return;
    }
    const QJsonObject object = document.object();
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue method = object.value(QStringLiteral("method"));
    if (object.value(QStringLiteral("jsonrpc")).toString() != u"2.0") {
        fail(validId(id) ? id : QJsonValue(QJsonValue::Null), InvalidRequest,
             QStringLiteral("Invalid request: \"jsonrpc\" must be \"2.0\"."));
        return;
    }
    if (!method.isString()) {
        // An answer to a request of ours; this server sends none, so there is nothing to match.
        if (object.contains(QStringLiteral("result")) || object.contains(QStringLiteral("error"))) {
            return;
        }
        fail(validId(id) ? id : QJsonValue(QJsonValue::Null), InvalidRequest,
             QStringLiteral("Invalid request: \"method\" must be a string."));
        return;
    }
    const QJsonValue params = object.value(QStringLiteral("params"));
    if (!params.isUndefined() && !params.isObject()) {
        if (object.contains(QStringLiteral("id")) && validId(id)) {
            fail(id, InvalidParams,
                 QStringLiteral("Invalid params: \"params\" must be an object."));
        }
        return;
    }
    if (!object.contains(QStringLiteral("id"))) {
        // Notifications are never answered. A call cannot be taken back once it runs, so a
        // cancellation changes nothing; the others need nothing from this server.
        qCDebug(lcMcp) << "notification" << method.toString();
        return;
    }
    if (!validId(id)) {
        fail(QJsonValue::Null, InvalidRequest,
             QStringLiteral("Invalid request: \"id\" must be a string or an integer."));
        return;
    }
    request(id, method.toString(), params.toObject());
}

void McpServer::request(const QJsonValue& id, const QString& method, const QJsonObject& params) {
    if (method == u"initialize") {
        const QString asked = params.value(QStringLiteral("protocolVersion")).toString();
        const QString version =
            protocolVersions().contains(asked) ? asked : protocolVersions().constFirst();
        const QString name = params.value(QStringLiteral("clientInfo"))
                                 .toObject()
                                 .value(QStringLiteral("name"))
                                 .toString()
                                 .trimmed()
                                 .left(100);
        m_agent =
            name.isEmpty() ? QStringLiteral("Local agent") : QStringLiteral("Local agent: ") + name;
        respond(id,
                QJsonObject{
                    {QStringLiteral("protocolVersion"), version},
                    {QStringLiteral("capabilities"),
                     QJsonObject{{QStringLiteral("tools"),
                                  QJsonObject{{QStringLiteral("listChanged"), false}}}}},
                    {QStringLiteral("serverInfo"),
                     QJsonObject{{QStringLiteral("name"), QStringLiteral("quillmar-companion")},
                                 {QStringLiteral("title"), QStringLiteral("Quillmar companion")},
                                 {QStringLiteral("version"), m_version}}},
                    {QStringLiteral("instructions"),
                     QStringLiteral("Files in the folders the user shares through the Quillmar "
                                    "companion, and nothing else. Paths start with a shared "
                                    "folder's name; local_list_files without a path lists the "
                                    "folders. The user may be asked before each write, and "
                                    "can undo it.")}});
        return;
    }
    if (method == u"ping") {
        respond(id, QJsonObject());
        return;
    }
    if (method == u"tools/list") {
        respond(id, QJsonObject{{QStringLiteral("tools"), McpTools::list()}});
        return;
    }
    if (method == u"tools/call") {
        const QJsonValue name = params.value(QStringLiteral("name"));
        const QJsonValue arguments = params.value(QStringLiteral("arguments"));
        if (!name.isString() || !McpTools::exists(name.toString())) {
            fail(id, InvalidParams,
                 QStringLiteral("Unknown tool: %1").arg(name.toVariant().toString()));
            return;
        }
        if (!arguments.isUndefined() && !arguments.isNull() && !arguments.isObject()) {
            fail(id, InvalidParams,
                 QStringLiteral("Invalid params: \"arguments\" must be an object."));
            return;
        }
        callTool(id, name.toString(), arguments.toObject());
        return;
    }
    fail(id, MethodNotFound, QStringLiteral("Method not found: %1").arg(method));
}

void McpServer::callTool(const QJsonValue& id, const QString& name, const QJsonObject& arguments) {
    ++m_inFlight;
    // Answered whenever the call ends; the answer is dropped if this server has gone by then.
    QCoro::connect(m_runner(name, arguments, m_agent), this,
                   [this, id](const ToolResult& result) { answerCall(id, result); });
}

void McpServer::answerCall(const QJsonValue& id, const ToolResult& result) {
    if (result.isJson()) {
        // A result that comes as JSON text is spliced in as it is: parsing it only to write it
        // again would cost more than the call itself for a small read.
        const QByteArray& json = result.json();
        CompactJson out(json.size() * 2 + 200);
        out.raw(R"({"id":)");
        out.raw(compactValue(id));
        out.raw(R"(,"jsonrpc":"2.0","result":{"content":[{"text":)");
        out.string(QString::fromUtf8(json));
        out.raw(R"(,"type":"text"}],"isError":false,"structuredContent":)");
        out.raw(json);
        out.raw("}}");
        emit message(out.take());
        finishCall();
        return;
    }
    const QJsonObject object = result.toObject();
    const QJsonValue error = object.value(QStringLiteral("error"));
    QJsonObject answer;
    if (error.isString()) {
        answer =
            QJsonObject{{QStringLiteral("content"),
                         QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                {QStringLiteral("text"), error.toString()}}}},
                        {QStringLiteral("isError"), true}};
    } else {
        const QString text = QString::fromUtf8(compact(object));
        answer =
            QJsonObject{{QStringLiteral("content"),
                         QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                {QStringLiteral("text"), text}}}},
                        {QStringLiteral("structuredContent"), object},
                        {QStringLiteral("isError"), false}};
    }
    respond(id, answer);
    finishCall();
}

void McpServer::finishCall() {
    if (--m_inFlight == 0) {
        emit idle();
    }
}
