#include "ClaimResponse.h"

#include "ClaimDecodeError.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

namespace {

[[noreturn]] void fail(const QString& reason) {
    throw ClaimDecodeError(QStringLiteral("The server's answer could not be read: ") + reason +
                           u'.');
}

QString requiredString(const QJsonObject& object, const QString& key) {
    const auto it = object.constFind(key);
    if (it == object.constEnd()) {
        fail(QStringLiteral("the key '%1' is missing").arg(key));
    }
    if (!it->isString()) {
        fail(QStringLiteral("the value of '%1' is not a string").arg(key));
    }
    return it->toString();
}

} // namespace

ClaimResponse ClaimResponse::fromJson(const QByteArray& body) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        fail(QStringLiteral("it is not valid JSON (%1 at offset %2)")
                 .arg(parseError.errorString())
                 .arg(parseError.offset));
    }
    if (!document.isObject()) {
        fail(QStringLiteral("it is not a JSON object"));
    }
    const QJsonObject object = document.object();
    return ClaimResponse{
        requiredString(object, QStringLiteral("device_token")),
        requiredString(object, QStringLiteral("device_id")),
        requiredString(object, QStringLiteral("org_id")),
    };
}
