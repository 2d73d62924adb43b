#include "DevService.h"

#include "JsonReader.h"
#include "WebConsole.h"

#include <QFile>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTextStream>
#include <QUrlQuery>
#include <QWebSocket>

#include <cmath>
#include <memory>

namespace {

using StatusCode = QHttpServerResponder::StatusCode;

const QString bridgePath = QStringLiteral("/api/v1/devices/bridge");

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QHttpServerResponse json(const QJsonObject& object, StatusCode status = StatusCode::Ok) {
    return QHttpServerResponse(QByteArrayLiteral("application/json"), compact(object), status);
}

QHttpServerResponse error(StatusCode status, const QString& message) {
    return json(QJsonObject{{QStringLiteral("error"), message}}, status);
}

// The request's JSON object; an empty body counts as {}. Nothing for anything else.
std::optional<QJsonObject> bodyObject(const QHttpServerRequest& request) {
    const QByteArray body = request.body();
    if (body.trimmed().isEmpty()) {
        return QJsonObject();
    }
    QJsonParseError parseError;
    const QJsonDocument document = JsonReader::parse(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

// A whole number of at least `lowest` and at most `highest` under `key`, `fallback` when the
// key is absent; nothing when it is anything else.
std::optional<qint64> wholeNumber(const QJsonObject& object, const QString& key, qint64 fallback,
                                  qint64 lowest, qint64 highest) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined()) {
        return fallback;
    }
    const double number = value.toDouble(std::nan(""));
    if (!value.isDouble() || number != std::floor(number) || number < double(lowest) ||
        number > double(highest)) {
        return std::nullopt;
    }
    return qint64(number);
}

} // namespace

DevService::DevService(QObject* parent)
    : QObject(parent),
      m_front(new FrontDoor(
          bridgePath, [this](const QString& token) { return bridgeGate(token); }, this)) {
    connect(m_front, &FrontDoor::bridgeOpened, this, &DevService::bridgeOpened);
    addRoutes();
}

bool DevService::useStateFile(const QString& path, QString& error) {
    m_statePath = path;
    if (!QFile::exists(path)) {
        return m_registry.save(path, error);
    }
    return m_registry.load(path, error);
}

bool DevService::listen(const QHostAddress& address, quint16 port, QString& error) {
    if (!m_front->listen(address, port)) {
        error = m_front->errorString();
        return false;
    }
    m_http.bind(m_front);
    return true;
}

int DevService::bridgeGate(const QString& token) const {
    if (!m_refuseUntil.hasExpired()) {
        return 503;
    }
    return m_registry.deviceForToken(token) ? 0 : 401;
}

void DevService::bridgeOpened(QWebSocket* socket) {
    const QString token =
        QUrlQuery(socket->requestUrl()).queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded);
    const DeviceRegistry::Device* device = m_registry.deviceForToken(token);
    if (!device) {
        socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
        socket->deleteLater();
        return;
    }
    m_hub.attach(device->id, socket);
}

void DevService::addRoutes() {
    using Method = QHttpServerRequest::Method;

    m_http.route(QStringLiteral("/api/v1/devices/pair/claim"), Method::Post,
                 [this](const QHttpServerRequest& request) { return claim(request); });

    m_http.route(QStringLiteral("/api/v1/agent/pairing-codes"), Method::Post,
                 [this](const QHttpServerRequest& request) { return createCode(request); });
    m_http.route(QStringLiteral("/api/v1/agent/devices"), Method::Get,
                 [this] { return listDevices(); });
    m_http.route(QStringLiteral("/api/v1/agent/devices/<arg>"), Method::Get,
                 [this](const QString& deviceId) { return showDevice(deviceId); });
    m_http.route(
        QStringLiteral("/api/v1/agent/devices/<arg>/calls"), Method::Post,
        [this](const QString& deviceId, const QHttpServerRequest& request,
               QHttpServerResponder&& responder) {
            const std::optional<QJsonObject> body = bodyObject(request);
            if (!body) {
                responder.write(
                    compact({{QStringLiteral("error"), QStringLiteral("Expected a JSON object.")}}),
                    QByteArrayLiteral("application/json"), StatusCode::BadRequest);
                return;
            }
            callDevice(deviceId, *body, std::move(responder));
        });
    m_http.route(QStringLiteral("/api/v1/agent/calls"), Method::Post,
                 [this](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
                     const std::optional<QJsonObject> body = bodyObject(request);
                     const QJsonValue deviceId =
                         body ? body->value(QStringLiteral("device_id")) : QJsonValue();
                     if (!deviceId.isString()) {
                         responder.write(
                             compact({{QStringLiteral("error"),
                                       QStringLiteral("Expected a JSON object with a string "
                                                      "device_id.")}}),
                             QByteArrayLiteral("application/json"), StatusCode::BadRequest);
                         return;
                     }
                     QJsonObject fields = *body;
                     fields.remove(QStringLiteral("device_id"));
                     callDevice(deviceId.toString(), fields, std::move(responder));
                 });
    m_http.route(QStringLiteral("/api/v1/agent/devices/<arg>/drop"), Method::Post,
                 [this](const QString& deviceId, const QHttpServerRequest& request) {
                     return dropDevice(deviceId, request);
                 });
    m_http.route(QStringLiteral("/api/v1/agent/bridge/refuse"), Method::Post,
                 [this](const QHttpServerRequest& request) { return refuseBridges(request); });
    m_http.route(QStringLiteral("/api/v1/agent/devices/<arg>/raw"), Method::Post,
                 [this](const QString& deviceId, const QHttpServerRequest& request) {
                     return sendRawFrame(deviceId, request);
                 });

    WebConsole::addRoutes(m_http);

    m_http.setMissingHandler([](const QHttpServerRequest&, QHttpServerResponder&& responder) {
        responder.write(compact({{QStringLiteral("error"), QStringLiteral("Not found.")}}),
                        QByteArrayLiteral("application/json"), StatusCode::NotFound);
    });
}

QHttpServerResponse DevService::claim(const QHttpServerRequest& request) {
    const std::optional<QJsonObject> body = bodyObject(request);
    const QJsonObject object = body.value_or(QJsonObject());
    const QJsonValue code = object.value(QStringLiteral("code"));
    const QJsonValue name = object.value(QStringLiteral("device_name"));
    const QJsonValue platform = object.value(QStringLiteral("platform"));
    if (!body || !code.isString() || !name.isString() || !platform.isString()) {
        return error(StatusCode::BadRequest,
                     QStringLiteral("Expected a JSON object with the strings code, device_name "
                                    "and platform."));
    }
    const std::optional<DeviceRegistry::Device> device =
        m_registry.claim(code.toString(), name.toString(), platform.toString());
    if (!device) {
        return error(StatusCode::BadRequest,
                     QStringLiteral("That code is invalid, expired or already used."));
    }
    if (!m_statePath.isEmpty()) {
        QString saveError;
        if (!m_registry.save(m_statePath, saveError)) {
            QTextStream(stderr) << "quillmar-devservice: " << saveError << "\n";
        }
    }
    return json({{QStringLiteral("device_token"), device->token},
                 {QStringLiteral("device_id"), device->id},
                 {QStringLiteral("org_id"), m_registry.orgId()}});
}

QHttpServerResponse DevService::createCode(const QHttpServerRequest& request) {
    const std::optional<QJsonObject> body = bodyObject(request);
    const std::optional<qint64> lifetime =
        body ? wholeNumber(*body, QStringLiteral("ttl_seconds"),
                           DeviceRegistry::codeLifetime.count(), 0, 86400)
             : std::nullopt;
    if (!lifetime) {
        return error(StatusCode::BadRequest,
                     QStringLiteral("ttl_seconds must be a whole number from 0 to 86400."));
    }
    const QString code = m_registry.issueCode(std::chrono::seconds(*lifetime));
    return json({{QStringLiteral("code"), code}, {QStringLiteral("expires_in"), *lifetime}},
                StatusCode::Created);
}

QJsonObject DevService::deviceObject(const DeviceRegistry::Device& device) const {
    return {{QStringLiteral("device_id"), device.id},
            {QStringLiteral("device_name"), device.name},
            {QStringLiteral("platform"), device.platform},
            {QStringLiteral("org_id"), m_registry.orgId()},
            {QStringLiteral("online"), m_hub.isOnline(device.id)}};
}

QHttpServerResponse DevService::listDevices() const {
    QJsonArray devices;
    for (const DeviceRegistry::Device& device : m_registry.devices()) {
        devices.append(deviceObject(device));
    }
    return json({{QStringLiteral("devices"), devices}});
}

QHttpServerResponse DevService::showDevice(const QString& deviceId) const {
    const DeviceRegistry::Device* device = m_registry.device(deviceId);
    if (!device) {
        return error(StatusCode::NotFound, QStringLiteral("Unknown device: %1").arg(deviceId));
    }
    return json(deviceObject(*device));
}

void DevService::callDevice(const QString& deviceId, const QJsonObject& body,
                            QHttpServerResponder&& responder) {
    // The agent's connection may be gone by the time the device answers.
    const QPointer<QTcpSocket> connection(responder.socket());
    auto answer = [connection, responder = std::make_shared<QHttpServerResponder>(std::move(
                                   responder))](StatusCode status, const QByteArray& bytes) {
        if (connection && connection->state() == QAbstractSocket::ConnectedState) {
            responder->write(bytes, QByteArrayLiteral("application/json"), status);
            connection->flush();
        }
    };
    auto fail = [answer](StatusCode status, const QString& message) {
        answer(status, compact({{QStringLiteral("error"), message}}));
    };

    if (!m_registry.device(deviceId)) {
        fail(StatusCode::NotFound, QStringLiteral("Unknown device: %1").arg(deviceId));
        return;
    }
    const std::optional<qint64> timeout =
        wholeNumber(body, QStringLiteral("timeout_ms"), defaultCallTimeout.count(), 1,
                    longestCallTimeout.count());
    if (!timeout) {
        fail(StatusCode::BadRequest,
             QStringLiteral("timeout_ms must be a whole number from 1 to %1.")
                 .arg(longestCallTimeout.count()));
        return;
    }
    // method and params travel as the agent wrote them, wrong types included: the device
    // decides what to make of them.
    QJsonObject fields;
    for (const QString& key : {QStringLiteral("method"), QStringLiteral("params")}) {
        if (body.contains(key)) {
            fields.insert(key, body.value(key));
        }
    }
    m_hub.call(
        deviceId, fields, std::chrono::milliseconds(*timeout),
        [fail, answer, deviceId, timeout](BridgeHub::CallError callError, const QByteArray& frame) {
            switch (callError) {
            case BridgeHub::CallError::None:
                answer(StatusCode::Ok, frame);
                return;
            case BridgeHub::CallError::Offline:
                fail(StatusCode::Conflict, QStringLiteral("Device %1 is offline.").arg(deviceId));
                return;
            case BridgeHub::CallError::Timeout:
                fail(StatusCode::GatewayTimeout,
                     QStringLiteral("Device %1 did not answer within %2 ms.")
                         .arg(deviceId)
                         .arg(*timeout));
                return;
            case BridgeHub::CallError::Disconnected:
                fail(StatusCode::BadGateway,
                     QStringLiteral("Device %1 disconnected before answering.").arg(deviceId));
                return;
            }
        });
}

QHttpServerResponse DevService::dropDevice(const QString& deviceId,
                                           const QHttpServerRequest& request) {
    if (!m_registry.device(deviceId)) {
        return error(StatusCode::NotFound, QStringLiteral("Unknown device: %1").arg(deviceId));
    }
    const std::optional<QJsonObject> body = bodyObject(request);
    const std::optional<qint64> seconds =
        body ? wholeNumber(*body, QStringLiteral("refuse_seconds"), 0, 0, 86400) : std::nullopt;
    if (!seconds) {
        return error(StatusCode::BadRequest,
                     QStringLiteral("refuse_seconds must be a whole number from 0 to 86400."));
    }
    // Refuse first, so the device's immediate reconnection already meets the refusal.
    if (*seconds > 0) {
        refuseFor(*seconds);
    }
    const bool dropped = m_hub.drop(deviceId);
    return json({{QStringLiteral("device_id"), deviceId},
                 {QStringLiteral("dropped"), dropped},
                 {QStringLiteral("refuse_seconds"), *seconds}});
}

QHttpServerResponse DevService::refuseBridges(const QHttpServerRequest& request) {
    const std::optional<QJsonObject> body = bodyObject(request);
    const std::optional<qint64> seconds =
        body ? wholeNumber(*body, QStringLiteral("seconds"), -1, 0, 86400) : std::nullopt;
    if (!seconds || *seconds < 0) {
        return error(StatusCode::BadRequest,
                     QStringLiteral("seconds must be a whole number from 0 to 86400."));
    }
    refuseFor(*seconds);
    return json({{QStringLiteral("refuse_seconds"), *seconds}});
}

QHttpServerResponse DevService::sendRawFrame(const QString& deviceId,
                                             const QHttpServerRequest& request) {
    if (!m_registry.device(deviceId)) {
        return error(StatusCode::NotFound, QStringLiteral("Unknown device: %1").arg(deviceId));
    }
    const QString kind = request.query().queryItemValue(QStringLiteral("frame"));
    if (!kind.isEmpty() && kind != u"text" && kind != u"binary") {
        return error(StatusCode::BadRequest, QStringLiteral("frame must be text or binary."));
    }
    const bool binary = kind == u"binary";
    // The body is not looked at: malformed, huge or not UTF-8 at all is the point.
    const QByteArray bytes = request.body();
    if (!m_hub.sendRaw(deviceId, bytes, binary)) {
        return error(StatusCode::Conflict, QStringLiteral("Device %1 is offline.").arg(deviceId));
    }
    return json(
        {{QStringLiteral("device_id"), deviceId},
         {QStringLiteral("frame"), binary ? QStringLiteral("binary") : QStringLiteral("text")},
         {QStringLiteral("bytes"), qint64(bytes.size())}});
}

void DevService::refuseFor(qint64 seconds) {
    m_refuseUntil = QDeadlineTimer(std::chrono::seconds(seconds));
}
