#include "KeyringControl.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QMap>

namespace {

const QString serviceName = QStringLiteral("org.freedesktop.secrets");
const QString servicePath = QStringLiteral("/org/freedesktop/secrets");
const QString serviceInterface = QStringLiteral("org.freedesktop.Secret.Service");
constexpr int callTimeoutMs = 5000;

QDBusMessage call(const QString& path, const QString& interface, const QString& method,
                  const QVariantList& arguments) {
    QDBusMessage message = QDBusMessage::createMethodCall(serviceName, path, interface, method);
    message.setArguments(arguments);
    return QDBusConnection::sessionBus().call(message, QDBus::Block, callTimeoutMs);
}

bool answered(const QDBusMessage& reply) {
    return reply.type() == QDBusMessage::ReplyMessage;
}

} // namespace

QString KeyringControl::defaultCollection() {
    const QDBusMessage reply = call(servicePath, serviceInterface, QStringLiteral("ReadAlias"),
                                    {QStringLiteral("default")});
    if (!answered(reply) || reply.arguments().isEmpty()) {
        m_error = QStringLiteral("no default collection: ") + reply.errorMessage();
        return QString();
    }
    return reply.arguments().constFirst().value<QDBusObjectPath>().path();
}

bool KeyringControl::lock() {
    const QString collection = defaultCollection();
    if (collection.isEmpty()) {
        return false;
    }
    const QDBusMessage reply =
        call(servicePath, serviceInterface, QStringLiteral("Lock"),
             {QVariant::fromValue(QList<QDBusObjectPath>{QDBusObjectPath(collection)})});
    if (!answered(reply)) {
        m_error = QStringLiteral("Lock: ") + reply.errorMessage();
        return false;
    }
    return isLocked() == std::optional<bool>(true);
}

bool KeyringControl::unlock() {
    const QString collection = defaultCollection();
    if (collection.isEmpty()) {
        return false;
    }
    // The password travels in a plain session of this connection.
    const QDBusMessage session =
        call(servicePath, serviceInterface, QStringLiteral("OpenSession"),
             {QStringLiteral("plain"), QVariant::fromValue(QDBusVariant(QString()))});
    if (!answered(session) || session.arguments().size() != 2) {
        m_error = QStringLiteral("OpenSession: ") + session.errorMessage();
        return false;
    }
    QDBusArgument secret;
    secret.beginStructure();
    secret << session.arguments().at(1).value<QDBusObjectPath>() << QByteArray()
           << qEnvironmentVariable("QUILLMAR_KEYRING_PASSWORD").toUtf8()
           << QStringLiteral("text/plain");
    secret.endStructure();
    const QDBusMessage reply = call(
        servicePath, QStringLiteral("org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface"),
        QStringLiteral("UnlockWithMasterPassword"),
        {QVariant::fromValue(QDBusObjectPath(collection)), QVariant::fromValue(secret)});
    if (!answered(reply)) {
        m_error = QStringLiteral("UnlockWithMasterPassword: ") + reply.errorMessage();
        return false;
    }
    return isLocked() == std::optional<bool>(false);
}

std::optional<bool> KeyringControl::isLocked() {
    const QString collection = defaultCollection();
    if (collection.isEmpty()) {
        return std::nullopt;
    }
    const QDBusMessage reply =
        call(collection, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"),
             {QStringLiteral("org.freedesktop.Secret.Collection"), QStringLiteral("Locked")});
    if (!answered(reply) || reply.arguments().isEmpty()) {
        m_error = QStringLiteral("Locked: ") + reply.errorMessage();
        return std::nullopt;
    }
    return reply.arguments().constFirst().value<QDBusVariant>().variant().toBool();
}

int KeyringControl::entries(const QString& account) {
    static const QMetaType attributesType = qDBusRegisterMetaType<QMap<QString, QString>>();
    Q_UNUSED(attributesType)
    const QMap<QString, QString> attributes{{QStringLiteral("user"), account}};
    const QDBusMessage reply = call(servicePath, serviceInterface, QStringLiteral("SearchItems"),
                                    {QVariant::fromValue(attributes)});
    if (!answered(reply) || reply.arguments().size() != 2) {
        m_error = QStringLiteral("SearchItems: ") + reply.errorMessage();
        return -1;
    }
    return int(qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(0)).size() +
               qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(1)).size());
}
