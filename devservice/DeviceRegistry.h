#pragma once

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QString>

#include <chrono>
#include <functional>
#include <optional>

// The dev service's memory: the pairing codes it issued and the devices that claimed one.
// Plain data, no I/O except the optional state file that lets a restarted service recognise
// the devices paired before.
class DeviceRegistry {
public:
    struct Device {
        QString id;
        QString token;
        QString name;
        QString platform;
    };

    static constexpr std::chrono::seconds codeLifetime{600};
    static constexpr int codeLength = 8;

    using Clock = std::function<QDateTime()>;

    explicit DeviceRegistry(Clock clock = {});

    // A fresh code of 8 characters from A-Z and 0-9, valid once for `lifetime`.
    QString issueCode(std::chrono::seconds lifetime = codeLifetime);
    // Pairs a new device when `code` was issued here, is unused and has not expired; a code is
    // spent by its first successful claim.
    std::optional<Device> claim(const QString& code, const QString& name, const QString& platform);

    const Device* deviceForToken(const QString& token) const;
    const Device* device(const QString& id) const;
    // In pairing order.
    const QList<Device>& devices() const { return m_devices; }
    QString orgId() const { return m_orgId; }

    // The state file holds the organisation and the devices (tokens included), never codes.
    bool load(const QString& path, QString& error);
    bool save(const QString& path, QString& error) const;

private:
    struct Code {
        QDateTime expires;
        bool used = false;
    };

    Clock m_clock;
    QString m_orgId;
    QHash<QString, Code> m_codes;
    QList<Device> m_devices;
};
