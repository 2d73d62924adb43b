#pragma once

#include "ToolResult.h"

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

// A Model Context Protocol server for local agents: JSON-RPC 2.0 messages, one a line, offering
// the four file tools. It only speaks the protocol; who runs a call (the running companion, or
// this process with its own confined worker) is the runner's business. Requests are answered
// as they finish, so a ping is answered while a write waits for the user.
class McpServer : public QObject {
    Q_OBJECT

public:
    // Runs one tool call for `agent` ("Local agent: NAME"); never throws.
    using ToolRunner =
        std::function<QCoro::Task<ToolResult>(QString method, QJsonObject params, QString agent)>;

    // JSON-RPC error codes.
    enum ErrorCode {
        ParseError = -32700,
        InvalidRequest = -32600,
        MethodNotFound = -32601,
        InvalidParams = -32602,
    };

    McpServer(ToolRunner runner, QString version, QObject* parent = nullptr);

    // Handles one line of input (without its line feed).
    void receive(const QByteArray& line);
    // Calls started and not yet answered.
    int callsInFlight() const { return m_inFlight; }
    // Who the client said it is, once it has.
    const QString& agent() const { return m_agent; }

    // Newest first; the first is offered to clients that ask for one this server lacks.
    static QStringList protocolVersions();
    // Input lines longer than this are refused unread (the bridge's own message ceiling).
    static constexpr qsizetype longestLine = qsizetype(64) * 1024 * 1024;
    // The error answer for a line that was too long (its id cannot be known).
    QByteArray tooLong() const;

signals:
    // One message to write out, without its line feed.
    void message(const QByteArray& line);
    // The last call in flight has been answered.
    void idle();

private:
    void respond(const QJsonValue& id, const QJsonObject& result);
    void fail(const QJsonValue& id, int code, const QString& text);
    void request(const QJsonValue& id, const QString& method, const QJsonObject& params);
    void callTool(const QJsonValue& id, const QString& name, const QJsonObject& arguments);
    void answerCall(const QJsonValue& id, const ToolResult& result);
    void finishCall();

    ToolRunner m_runner;
    QString m_version;
    QString m_agent = QStringLiteral("Local agent");
    int m_inFlight = 0;
};
