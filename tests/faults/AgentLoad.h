#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>

class QTcpSocket;

// An agent that keeps a number of tool calls in flight through the dev service's agent API,
// each worker sending its next call as soon as the last one is answered, and keeps its own log:
// what was sent, when, and exactly what came back. One HTTP connection per call, closed after
// it, so no call is ever sent twice by a client retrying on a reused connection.
class AgentLoad : public QObject {
    Q_OBJECT

public:
    struct Call {
        QString method;
        QJsonObject params;
    };

    struct Record {
        int index = -1;
        int worker = -1;
        Call call;
        qint64 startedAt = 0;
        qint64 finishedAt = -1;
        // The HTTP status; 0 when the service could not be reached or the connection ended
        // before a whole answer, -1 when the agent gave up waiting.
        int status = 0;
        QByteArray body;
    };

    using Plan = std::function<Call(int index)>;

    AgentLoad(quint16 servicePort, QString deviceId, Plan plan, QObject* parent = nullptr);
    ~AgentLoad() override;

    // How many calls may be in flight at once, and the most calls in all.
    void setWorkers(int workers) { m_workers = workers; }
    void setCallLimit(int limit) { m_limit = limit; }
    // A worker rests this long after a call that was not answered with 200, so that an offline
    // device or a dead service is asked a few times a second rather than thousands of times.
    void setPauseAfterFailure(int ms) { m_pauseAfterFailure = ms; }
    // The service's own time-out for each call, and how long the agent waits for an answer.
    void setTimeouts(int serviceMs, int agentMs) {
        m_serviceTimeout = serviceMs;
        m_agentTimeout = agentMs;
    }

    void start();
    // No new calls from here on; those in flight finish.
    void stop();
    bool idle() const { return m_inFlight == 0 && (m_stopped || m_next >= m_limit); }

    const QList<Record>& records() const { return m_records; }
    int answered() const { return m_answered; }

private:
    void next(int worker);
    void finish(int index, QTcpSocket* socket, int status);
    void readAnswer(int index, QTcpSocket* socket);

    quint16 m_port;
    QString m_deviceId;
    Plan m_plan;
    int m_workers = 4;
    int m_limit = 10000;
    int m_pauseAfterFailure = 100;
    int m_serviceTimeout = 15000;
    int m_agentTimeout = 30000;
    bool m_stopped = false;
    int m_next = 0;
    int m_inFlight = 0;
    int m_answered = 0;
    QList<Record> m_records;
    QList<QByteArray> m_received;
};
