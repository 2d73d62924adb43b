#pragma once

#include "BridgeHub.h"
#include "DeviceRegistry.h"
#include "FrontDoor.h"

#include <QDeadlineTimer>
#include <QHostAddress>
#include <QHttpServer>
#include <QObject>

class QWebSocket;

// A local stand-in for the Quillmar service: pairing, the devices' bridge, and a small JSON API
// through which an agent (or a test) sends tool calls to paired devices. The HTTP paths are
// listed in README.md next to this file.
class DevService : public QObject {
    Q_OBJECT

public:
    static constexpr std::chrono::milliseconds defaultCallTimeout{30000};
    static constexpr std::chrono::milliseconds longestCallTimeout{600000};

    explicit DevService(QObject* parent = nullptr);

    // Loads the devices paired in an earlier run from `path`, when it exists, and saves them
    // there after every pairing.
    bool useStateFile(const QString& path, QString& error);
    bool listen(const QHostAddress& address, quint16 port, QString& error);
    quint16 port() const { return m_front->serverPort(); }

    DeviceRegistry& registry() { return m_registry; }

private:
    void addRoutes();
    int bridgeGate(const QString& token) const;
    void bridgeOpened(QWebSocket* socket);

    QHttpServerResponse claim(const QHttpServerRequest& request);
    QHttpServerResponse createCode(const QHttpServerRequest& request);
    QHttpServerResponse listDevices() const;
    QHttpServerResponse showDevice(const QString& deviceId) const;
    void callDevice(const QString& deviceId, const QJsonObject& body,
                    QHttpServerResponder&& responder);
    QHttpServerResponse dropDevice(const QString& deviceId, const QHttpServerRequest& request);
    QHttpServerResponse refuseBridges(const QHttpServerRequest& request);
    QHttpServerResponse sendRawFrame(const QString& deviceId, const QHttpServerRequest& request);

    QJsonObject deviceObject(const DeviceRegistry::Device& device) const;
    void refuseFor(qint64 seconds);

    DeviceRegistry m_registry;
    BridgeHub m_hub;
    QHttpServer m_http;
    // Owned by m_http once bound (QHttpServer::bind takes the server as its child).
    FrontDoor* m_front;
    QString m_statePath;
    QDeadlineTimer m_refuseUntil;
};
