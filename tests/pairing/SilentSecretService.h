#pragma once

#include <QDBusVirtualObject>

// Takes the Secret Service's name on the session bus and never answers anything: a store that
// hangs, as a keyring waiting forever for an unlock would.
class SilentSecretService : public QDBusVirtualObject {
public:
    // Claims org.freedesktop.secrets and its object tree; false when that failed.
    bool install();
    int callsSwallowed() const { return m_calls; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
    QString introspect(const QString& path) const override;

private:
    int m_calls = 0;
};
