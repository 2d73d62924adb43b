#include "VersionRecord.h"

QJsonObject VersionRecord::toJson() const {
    QJsonObject object{{QStringLiteral("id"), id},
                       {QStringLiteral("time"), time.toUTC().toString(Qt::ISODateWithMs)},
                       {QStringLiteral("agent_path"), agentPath},
                       {QStringLiteral("real_path"), QString::fromLatin1(realPath.toBase64())},
                       {QStringLiteral("created"), created},
                       {QStringLiteral("size"), QString::number(size)}};
    if (before) {
        object.insert(QStringLiteral("before"), before->toJson());
    }
    if (after) {
        object.insert(QStringLiteral("after"), after->toJson());
    }
    return object;
}

std::optional<VersionRecord> VersionRecord::fromJson(const QJsonObject& object) {
    VersionRecord record;
    record.id = object.value(QStringLiteral("id")).toString();
    record.time =
        QDateTime::fromString(object.value(QStringLiteral("time")).toString(), Qt::ISODateWithMs);
    record.agentPath = object.value(QStringLiteral("agent_path")).toString();
    const auto real = QByteArray::fromBase64Encoding(
        object.value(QStringLiteral("real_path")).toString().toLatin1(),
        QByteArray::AbortOnBase64DecodingErrors);
    record.created = object.value(QStringLiteral("created")).toBool();
    bool sizeOk = false;
    record.size = object.value(QStringLiteral("size")).toString().toLongLong(&sizeOk);
    if (record.id.isEmpty() || !record.time.isValid() || !real || real.decoded.isEmpty() ||
        !sizeOk) {
        return std::nullopt;
    }
    record.realPath = real.decoded;
    if (object.contains(QStringLiteral("before"))) {
        record.before = FileState::fromJson(object.value(QStringLiteral("before")));
        if (!record.before) {
            return std::nullopt;
        }
    }
    if (object.contains(QStringLiteral("after"))) {
        record.after = FileState::fromJson(object.value(QStringLiteral("after")));
        if (!record.after) {
            return std::nullopt;
        }
    }
    return record;
}
