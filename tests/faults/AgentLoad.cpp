#include "AgentLoad.h"

#include "BridgeTap.h"

#include <QJsonDocument>
#include <QTcpSocket>
#include <QTimer>

#include <optional>
#include <utility>

namespace {

// The status and body of a whole HTTP answer in `bytes`; nothing while it is incomplete.
std::optional<std::pair<int, QByteArray>> parseAnswer(const QByteArray& bytes, bool ended) {
    const qsizetype headEnd = bytes.indexOf("\r\n\r\n");
    if (headEnd < 0) {
        return std::nullopt;
    }
    const QByteArray head = bytes.left(headEnd);
    const QList<QByteArray> statusLine = head.left(head.indexOf("\r\n")).split(' ');
    if (statusLine.size() < 2 || !statusLine[0].startsWith("HTTP/1.")) {
        return std::nullopt;
    }
    qsizetype length = -1;
    for (const QByteArray& line : head.split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-length") {
            length = line.mid(colon + 1).trimmed().toLongLong();
        }
    }
    const QByteArray body = bytes.mid(headEnd + 4);
    if (length >= 0 ? body.size() < length : !ended) {
        return std::nullopt;
    }
    return std::make_pair(statusLine[1].toInt(), length >= 0 ? body.left(length) : body);
}

} // namespace

AgentLoad::AgentLoad(quint16 servicePort, QString deviceId, Plan plan, QObject* parent)
    : QObject(parent), m_port(servicePort), m_deviceId(std::move(deviceId)),
      m_plan(std::move(plan)) {}

AgentLoad::~AgentLoad() {
    m_stopped = true;
    for (QTcpSocket* socket : findChildren<QTcpSocket*>()) {
        socket->disconnect(this);
        socket->abort();
    }
}

void AgentLoad::start() {
    for (int worker = 0; worker < m_workers; ++worker) {
        next(worker);
    }
}

void AgentLoad::stop() {
    m_stopped = true;
}

void AgentLoad::next(int worker) {
    if (m_stopped || m_next >= m_limit) {
        return;
    }
    const int index = m_next++;
    Record record;
    record.index = index;
    record.worker = worker;
    record.call = m_plan(index);
    record.startedAt = BridgeTap::now();
    m_records.append(record);
    m_received.append(QByteArray());
    ++m_inFlight;

    const QByteArray body =
        QJsonDocument(QJsonObject{{QStringLiteral("method"), record.call.method},
                                  {QStringLiteral("params"), record.call.params},
                                  {QStringLiteral("timeout_ms"), m_serviceTimeout}})
            .toJson(QJsonDocument::Compact);
    const QByteArray request =
        "POST /api/v1/agent/devices/" + m_deviceId.toUtf8() +
        "/calls HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_port) +
        "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) +
        "\r\nConnection: close\r\n\r\n" + body;

    auto* socket = new QTcpSocket(this);
    auto* deadline = new QTimer(socket);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, this, [this, index, socket] { finish(index, socket, -1); });
    deadline->start(m_agentTimeout);
    connect(socket, &QTcpSocket::connected, socket, [socket, request] { socket->write(request); });
    connect(socket, &QTcpSocket::readyRead, this,
            [this, index, socket] { readAnswer(index, socket); });
    connect(socket, &QTcpSocket::disconnected, this, [this, index, socket] {
        m_received[index] += socket->readAll();
        const auto answer = parseAnswer(m_received[index], true);
        finish(index, socket, answer ? answer->first : 0);
    });
    connect(socket, &QTcpSocket::errorOccurred, this, [this, index, socket] {
        if (socket->state() != QAbstractSocket::ConnectedState) {
            finish(index, socket, 0);
        }
    });
    socket->connectToHost(QHostAddress::LocalHost, m_port);
}

void AgentLoad::readAnswer(int index, QTcpSocket* socket) {
    m_received[index] += socket->readAll();
    if (const auto answer = parseAnswer(m_received[index], false)) {
        finish(index, socket, answer->first);
    }
}

void AgentLoad::finish(int index, QTcpSocket* socket, int status) {
    Record& record = m_records[index];
    if (record.finishedAt >= 0) {
        return;
    }
    record.finishedAt = BridgeTap::now();
    record.status = status;
    if (status > 0) {
        const auto answer = parseAnswer(m_received[index], true);
        record.body = answer ? answer->second : QByteArray();
    }
    m_received[index].clear();
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
    --m_inFlight;
    if (status == 200) {
        ++m_answered;
        next(record.worker);
    } else {
        const int worker = record.worker;
        QTimer::singleShot(m_pauseAfterFailure, this, [this, worker] { next(worker); });
    }
}
