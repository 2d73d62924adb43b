#include "JsonParams.h"

#include <QJsonValue>
#include <QVariant>

#include <cmath>

namespace JsonParams {

std::optional<QString> string(const QJsonObject& params, const QString& key) {
    const QJsonValue value = params.value(key);
    if (!value.isString()) {
        return std::nullopt;
    }
    return value.toString();
}

std::optional<qint64> integer(const QJsonObject& params, const QString& key) {
    const QJsonValue value = params.value(key);
    if (!value.isDouble()) {
        return std::nullopt;
    }
    const QVariant variant = value.toVariant();
    if (variant.typeId() == QMetaType::LongLong) {
        return variant.toLongLong();
    }
    const double number = value.toDouble();
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    if (!std::isfinite(number) || std::trunc(number) != number || number < -9223372036854775808.0 ||
        number >= 9223372036854775808.0) {
        return std::nullopt;
    }
    return static_cast<qint64>(number);
}

} // namespace JsonParams
