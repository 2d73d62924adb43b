#include "DeviceRegistry.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSaveFile>

namespace {

QString randomHex(int bytes) {
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->generate(data.begin(), data.end());
    return QString::fromLatin1(data.toHex());
}

QString randomToken() {
    QByteArray data(32, Qt::Uninitialized);
    QRandomGenerator::system()->generate(data.begin(), data.end());
    return QString::fromLatin1(
        data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

DeviceRegistry::DeviceRegistry(Clock clock)
    : m_clock(clock ? std::move(clock) : Clock([] { return QDateTime::currentDateTimeUtc(); })),
      m_orgId(QStringLiteral("org_") + randomHex(6)) {}

QString DeviceRegistry::issueCode(std::chrono::seconds lifetime) {
    static constexpr char16_t alphabet[] = u"ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    constexpr int alphabetSize = int(std::size(alphabet)) - 1;
    const QDateTime now = m_clock();

    // Spent and expired codes are only kept to answer their reuse; a day later they can go.
    m_codes.removeIf(
        [&](const QHash<QString, Code>::iterator it) { return it->expires.secsTo(now) > 86400; });

    QString code;
    do {
        code.clear();
        for (int i = 0; i < codeLength; ++i) {
            code.append(QChar(alphabet[QRandomGenerator::system()->bounded(alphabetSize)]));
        }
    } while (m_codes.contains(code));
    m_codes.insert(code, Code{now.addSecs(lifetime.count()), false});
    return code;
}

std::optional<DeviceRegistry::Device>
DeviceRegistry::claim(const QString& code, const QString& name, const QString& platform) {
    const auto it = m_codes.find(code);
    if (it == m_codes.end() || it->used || m_clock() >= it->expires) {
        return std::nullopt;
    }
    it->used = true;

    Device device;
    do {
        device.id = QStringLiteral("dev_") + randomHex(6);
    } while (this->device(device.id));
    device.token = randomToken();
    device.name = name;
    device.platform = platform;
    m_devices.append(device);
    return device;
}

const DeviceRegistry::Device* DeviceRegistry::deviceForToken(const QString& token) const {
    if (token.isEmpty()) {
        return nullptr;
    }
    for (const Device& device : m_devices) {
        if (device.token == token) {
            return &device;
        }
    }
    return nullptr;
}

const DeviceRegistry::Device* DeviceRegistry::device(const QString& id) const {
    for (const Device& device : m_devices) {
        if (device.id == id) {
            return &device;
        }
    }
    return nullptr;
}

bool DeviceRegistry::load(const QString& path, QString& error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    const QJsonObject root = document.object();
    const QJsonValue org = root.value(QStringLiteral("org_id"));
    const QJsonValue list = root.value(QStringLiteral("devices"));
    if (!document.isObject() || !org.isString() || !list.isArray()) {
        error = QStringLiteral("%1 is not a dev service state file").arg(path);
        return false;
    }
    QList<Device> devices;
    for (const QJsonValue& value : list.toArray()) {
        const QJsonObject object = value.toObject();
        Device device{object.value(QStringLiteral("device_id")).toString(),
                      object.value(QStringLiteral("device_token")).toString(),
                      object.value(QStringLiteral("device_name")).toString(),
                      object.value(QStringLiteral("platform")).toString()};
        if (device.id.isEmpty() || device.token.isEmpty()) {
            error = QStringLiteral("%1 holds a device without id or token").arg(path);
            return false;
        }
        devices.append(device);
    }
    m_orgId = org.toString();
    m_devices = devices;
    return true;
}

bool DeviceRegistry::save(const QString& path, QString& error) const {
    QJsonArray list;
    for (const Device& device : m_devices) {
        list.append(QJsonObject{{QStringLiteral("device_id"), device.id},
                                {QStringLiteral("device_token"), device.token},
                                {QStringLiteral("device_name"), device.name},
                                {QStringLiteral("platform"), device.platform}});
    }
    const QJsonObject root{{QStringLiteral("org_id"), m_orgId}, {QStringLiteral("devices"), list}};
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(root).toJson()) < 0 ||
        !file.commit()) {
        error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return true;
}
