// The MCP server's protocol handling, with a runner that answers as the test says: every kind of
// message and mistake, version negotiation, the shape of tool results and errors, and answers
// that come out of order while a call waits.

#include "FileService.h"
#include "McpServer.h"
#include "ToolResult.h"

#include <QCoroTask>
#include <QCoroTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

QJsonObject parsed(const QByteArray& line) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        qWarning() << "not a JSON object:" << line;
    }
    return document.object();
}

QByteArray request(const QJsonValue& id, const QString& method, const QJsonObject& params = {}) {
    QJsonObject message{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                        {QStringLiteral("id"), id},
                        {QStringLiteral("method"), method}};
    if (!params.isEmpty()) {
        message.insert(QStringLiteral("params"), params);
    }
    return QJsonDocument(message).toJson(QJsonDocument::Compact);
}

QByteArray toolCall(int id, const QString& name, const QJsonObject& arguments) {
    return request(id, QStringLiteral("tools/call"),
                   {{QStringLiteral("name"), name}, {QStringLiteral("arguments"), arguments}});
}

} // namespace

class McpServerTest : public QObject {
    Q_OBJECT

    struct Seen {
        QString method;
        QJsonObject params;
        QString agent;
    };
    QList<Seen> m_seen;
    // What the runner answers, and after how long.
    ToolResult m_answer;
    int m_delayMs = 0;

    std::unique_ptr<McpServer> m_server;
    QList<QJsonObject> m_out;

    QCoro::Task<ToolResult> run(QString method, QJsonObject params, QString agent) {
        m_seen.append({method, params, agent});
        const ToolResult answer = m_answer;
        if (m_delayMs > 0) {
            QTimer timer;
            timer.setSingleShot(true);
            timer.start(m_delayMs);
            // Awaited as a timer: qCoro() on timeout() would pass its private-signal argument
            // on as a reference to nothing.
            co_await timer;
        }
        co_return answer;
    }

    QJsonObject only() {
        if (m_out.size() != 1) {
            qWarning() << "answers:" << m_out;
            return {};
        }
        return m_out.takeFirst();
    }

    QJsonObject errorOf(const QByteArray& line) {
        m_server->receive(line);
        return only().value(QStringLiteral("error")).toObject();
    }

private slots:
    void init() {
        m_seen.clear();
        m_out.clear();
        m_answer = ToolResult(QJsonObject{{QStringLiteral("ok"), 1}});
        m_delayMs = 0;
        m_server = std::make_unique<McpServer>(
            [this](QString method, QJsonObject params, QString agent) {
                return run(std::move(method), std::move(params), std::move(agent));
            },
            QStringLiteral("9.9.9"));
        connect(m_server.get(), &McpServer::message, this, [this](const QByteArray& line) {
            QVERIFY(!line.contains('\n'));
            m_out.append(parsed(line));
        });
    }

    void initializeNegotiatesTheVersion_data() {
        QTest::addColumn<QJsonValue>("asked");
        QTest::addColumn<QString>("answered");
        QTest::newRow("latest") << QJsonValue(QStringLiteral("2025-11-25"))
                                << QStringLiteral("2025-11-25");
        QTest::newRow("older, supported")
            << QJsonValue(QStringLiteral("2024-11-05")) << QStringLiteral("2024-11-05");
        QTest::newRow("unknown") << QJsonValue(QStringLiteral("2031-01-01"))
                                 << QStringLiteral("2025-11-25");
        QTest::newRow("missing") << QJsonValue() << QStringLiteral("2025-11-25");
    }
    void initializeNegotiatesTheVersion() {
        QFETCH(QJsonValue, asked);
        QFETCH(QString, answered);
        QJsonObject params{{QStringLiteral("capabilities"), QJsonObject()},
                           {QStringLiteral("clientInfo"),
                            QJsonObject{{QStringLiteral("name"), QStringLiteral("Editor")},
                                        {QStringLiteral("version"), QStringLiteral("2")}}}};
        if (!asked.isUndefined()) {
            params.insert(QStringLiteral("protocolVersion"), asked);
        }
        m_server->receive(request(1, QStringLiteral("initialize"), params));
        const QJsonObject answer = only();
        QCOMPARE(answer.value(QStringLiteral("jsonrpc")).toString(), QStringLiteral("2.0"));
        QCOMPARE(answer.value(QStringLiteral("id")).toInt(), 1);
        const QJsonObject result = answer.value(QStringLiteral("result")).toObject();
        QCOMPARE(result.value(QStringLiteral("protocolVersion")).toString(), answered);
        QVERIFY(result.value(QStringLiteral("capabilities")).toObject().contains(u"tools"_qs));
        const QJsonObject info = result.value(QStringLiteral("serverInfo")).toObject();
        QCOMPARE(info.value(QStringLiteral("name")).toString(),
                 QStringLiteral("quillmar-companion"));
        QCOMPARE(info.value(QStringLiteral("version")).toString(), QStringLiteral("9.9.9"));
        QCOMPARE(m_server->agent(), QStringLiteral("Local agent: Editor"));
    }

    void notificationsAreNeverAnswered() {
        m_server->receive(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
        m_server->receive(
            R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":3}})");
        m_server->receive(R"({"jsonrpc":"2.0","method":"no/such/notification"})");
        // An answer to a request this server never sent.
        m_server->receive(R"({"jsonrpc":"2.0","id":5,"result":{}})");
        m_server->receive("   ");
        QVERIFY(m_out.isEmpty());
    }

    void pingAndToolsList() {
        m_server->receive(request(QStringLiteral("a"), QStringLiteral("ping")));
        QCOMPARE(only(), (QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                                      {QStringLiteral("id"), QStringLiteral("a")},
                                      {QStringLiteral("result"), QJsonObject()}}));
        m_server->receive(request(2, QStringLiteral("tools/list")));
        const QJsonArray tools = only()
                                     .value(QStringLiteral("result"))
                                     .toObject()
                                     .value(QStringLiteral("tools"))
                                     .toArray();
        QStringList names;
        for (const QJsonValue& tool : tools) {
            const QJsonObject object = tool.toObject();
            names << object.value(QStringLiteral("name")).toString();
            QCOMPARE(object.value(QStringLiteral("inputSchema")).toObject().value(u"type"_qs),
                     QJsonValue(QStringLiteral("object")));
            QVERIFY(!object.value(QStringLiteral("description")).toString().contains(u'\n'));
        }
        QCOMPARE(names,
                 (QStringList{QStringLiteral("local_list_files"), QStringLiteral("local_read_file"),
                              QStringLiteral("local_search_files"),
                              QStringLiteral("local_write_file")}));
    }

    void mistakesGetTheirErrorCodes() {
        QJsonObject error = errorOf("{not json");
        QCOMPARE(error.value(QStringLiteral("code")).toInt(), int(McpServer::ParseError));
        QCOMPARE(errorOf(R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])")
                     .value(QStringLiteral("code"))
                     .toInt(),
                 int(McpServer::InvalidRequest));
        QCOMPARE(errorOf(R"({"id":1,"method":"ping"})").value(u"code"_qs).toInt(),
                 int(McpServer::InvalidRequest));
        QCOMPARE(errorOf(R"({"jsonrpc":"2.0","id":1,"method":7})").value(u"code"_qs).toInt(),
                 int(McpServer::InvalidRequest));
        QCOMPARE(
            errorOf(R"({"jsonrpc":"2.0","id":null,"method":"ping"})").value(u"code"_qs).toInt(),
            int(McpServer::InvalidRequest));
        QCOMPARE(errorOf(R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})").value(u"code"_qs).toInt(),
                 int(McpServer::InvalidRequest));
        QCOMPARE(errorOf(R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[1]})")
                     .value(u"code"_qs)
                     .toInt(),
                 int(McpServer::InvalidParams));
        error = errorOf(request(4, QStringLiteral("resources/list")));
        QCOMPARE(error.value(QStringLiteral("code")).toInt(), int(McpServer::MethodNotFound));
        QCOMPARE(error.value(QStringLiteral("message")).toString(),
                 QStringLiteral("Method not found: resources/list"));
        error = errorOf(toolCall(5, QStringLiteral("rm_rf"), {}));
        QCOMPARE(error.value(QStringLiteral("code")).toInt(), int(McpServer::InvalidParams));
        QCOMPARE(error.value(QStringLiteral("message")).toString(),
                 QStringLiteral("Unknown tool: rm_rf"));
        QCOMPARE(
            errorOf(
                R"({"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"local_read_file","arguments":[]}})")
                .value(u"code"_qs)
                .toInt(),
            int(McpServer::InvalidParams));
        QVERIFY(m_seen.isEmpty());
        // The id of a request is echoed as it came, string or number.
        m_server->receive(R"({"jsonrpc":"2.0","id":"x-1","method":"nope"})");
        QCOMPARE(only().value(QStringLiteral("id")), QJsonValue(QStringLiteral("x-1")));
    }

    void resultsComeAsTextAndStructuredContent() {
        m_server->receive(
            request(1, QStringLiteral("initialize"),
                    {{QStringLiteral("clientInfo"),
                      QJsonObject{{QStringLiteral("name"), QStringLiteral("Cli")}}}}));
        m_out.clear();
        m_answer = ToolResult(QJsonObject{{QStringLiteral("path"), QStringLiteral("D/a")},
                                          {QStringLiteral("content"), QStringLiteral("h\u00e9")},
                                          {QStringLiteral("truncated"), false}});
        m_server->receive(toolCall(7, QStringLiteral("local_read_file"),
                                   {{QStringLiteral("path"), QStringLiteral("D/a")}}));
        QTRY_COMPARE(m_out.size(), 1);
        QCOMPARE(m_seen.size(), 1);
        QCOMPARE(m_seen[0].method, QStringLiteral("local_read_file"));
        QCOMPARE(m_seen[0].params, (QJsonObject{{QStringLiteral("path"), QStringLiteral("D/a")}}));
        QCOMPARE(m_seen[0].agent, QStringLiteral("Local agent: Cli"));
        const QJsonObject result = only().value(QStringLiteral("result")).toObject();
        QCOMPARE(result.value(QStringLiteral("isError")), QJsonValue(false));
        QCOMPARE(result.value(QStringLiteral("structuredContent")).toObject(), m_answer.toObject());
        const QJsonObject text = result.value(QStringLiteral("content")).toArray().at(0).toObject();
        QCOMPARE(text.value(QStringLiteral("type")).toString(), QStringLiteral("text"));
        QCOMPARE(QJsonDocument::fromJson(text.value(QStringLiteral("text")).toString().toUtf8())
                     .object(),
                 m_answer.toObject());

        // A listing that comes as ready JSON text is passed on as it is.
        m_answer = ToolResult::fromJson(R"({"count":0,"items":[],"path":""})");
        m_server->receive(toolCall(8, QStringLiteral("local_list_files"), {}));
        QTRY_COMPARE(m_out.size(), 1);
        const QJsonObject listed = only().value(QStringLiteral("result")).toObject();
        QCOMPARE(
            listed.value(QStringLiteral("content")).toArray().at(0).toObject().value(u"text"_qs),
            QJsonValue(QStringLiteral(R"({"count":0,"items":[],"path":""})")));
        QCOMPARE(listed.value(QStringLiteral("structuredContent")).toObject().value(u"count"_qs),
                 QJsonValue(0));
        // Arguments left out are an empty object.
        QCOMPARE(m_seen.last().params, QJsonObject());
    }

    void toolErrorsAreResultsWithIsError() {
        m_answer =
            ToolResult(FileService::errorObject(QStringLiteral("Path escapes the shared folder.")));
        m_server->receive(toolCall(9, QStringLiteral("local_read_file"),
                                   {{QStringLiteral("path"), QStringLiteral("D/../x")}}));
        QTRY_COMPARE(m_out.size(), 1);
        const QJsonObject result = only().value(QStringLiteral("result")).toObject();
        QCOMPARE(result,
                 (QJsonObject{
                     {QStringLiteral("content"),
                      QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                             {QStringLiteral("text"),
                                              QStringLiteral("Path escapes the shared folder.")}}}},
                     {QStringLiteral("isError"), true}}));
    }

    void aPingIsAnsweredWhileACallWaits() {
        m_delayMs = 300;
        QSignalSpy idle(m_server.get(), &McpServer::idle);
        m_server->receive(toolCall(1, QStringLiteral("local_write_file"),
                                   {{QStringLiteral("path"), QStringLiteral("D/x")}}));
        m_server->receive(toolCall(2, QStringLiteral("local_read_file"),
                                   {{QStringLiteral("path"), QStringLiteral("D/y")}}));
        QCOMPARE(m_server->callsInFlight(), 2);
        m_server->receive(request(3, QStringLiteral("ping")));
        QCOMPARE(m_out.size(), 1);
        QCOMPARE(m_out[0].value(QStringLiteral("id")).toInt(), 3);
        QTRY_COMPARE(m_out.size(), 3);
        QCOMPARE(m_server->callsInFlight(), 0);
        QCOMPARE(idle.count(), 1);
    }

    void tooLongALineIsRefused() {
        const QJsonObject answer = parsed(m_server->tooLong());
        QCOMPARE(answer.value(QStringLiteral("id")), QJsonValue(QJsonValue::Null));
        QCOMPARE(answer.value(QStringLiteral("error")).toObject().value(u"code"_qs).toInt(),
                 int(McpServer::InvalidRequest));
    }
};

QTEST_GUILESS_MAIN(McpServerTest)
#include "tst_mcpserver.moc"
