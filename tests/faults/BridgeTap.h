#pragma once

#include "WebSocketStream.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

#include <memory>
#include <vector>

class QTcpSocket;

// A transparent relay on 127.0.0.1 between the companion and the service, which records what
// passes: every bridge connection (when it came, the service's answer to the upgrade, when and
// by which side it ended) and every WebSocket message in both directions, with the time it
// was complete. The companion is pointed at the tap instead of the service; bytes travel on
// unchanged, so neither side can tell. While the service is down the tap stops listening too,
// so the companion meets a closed port, as it would without the tap.
class BridgeTap : public QObject {
    Q_OBJECT

public:
    struct Message {
        qint64 at = 0;
        bool fromService = false;
        int opcode = 0;
        qint64 size = 0;
        // The whole payload up to 1 MiB, only its beginning beyond that.
        QByteArray payload;
        // From the payload's JSON object, when it is one; "" otherwise.
        QString type;
        QString reqId;
        QJsonObject object;
    };

    struct Connection {
        qint64 openedAt = 0;
        // The companion's upgrade request, up to the blank line.
        QByteArray requestHead;
        // The service's answer to the upgrade: 101, 503, ...; 0 when none came.
        int status = 0;
        qint64 answeredAt = -1;
        qint64 closedAt = -1;
        // "service", "companion" or "unreachable" (the service could not be reached).
        QString endedBy;
        QList<Message> messages;

        // When the service greeted the companion (its "hello"), -1 if it did not.
        qint64 helloAt() const;
    };

    explicit BridgeTap(quint16 servicePort, QObject* parent = nullptr);
    ~BridgeTap() override;

    bool listen(quint16 port);
    void stopListening();
    quint16 port() const { return m_port; }

    const QList<Connection>& connections() const { return m_connections; }
    int openConnections() const;

    // Sends a WebSocket ping to the companion on connection `index`, as the service could, but
    // only between two of the service's frames so that its stream stays well-formed. It is not
    // recorded; the companion's pong is (opcode 10, the same payload) and reaches the service,
    // which takes an unasked pong as a heartbeat. When it was sent, -1 when it could not be.
    qint64 pingCompanion(qsizetype index, const QByteArray& payload);

    // Milliseconds on the system's monotonic clock, shared by every observer in the test.
    static qint64 now();

private:
    struct Link;

    void accept();
    void fromCompanion(Link* link);
    void fromService(Link* link);
    void record(Link* link, WebSocketStream& stream, bool fromService);
    void end(Link* link, const QString& by);

    quint16 m_servicePort;
    quint16 m_port = 0;
    QTcpServer m_server;
    std::vector<std::unique_ptr<Link>> m_links;
    QList<Connection> m_connections;
};
