#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// Checked reads of tool parameters: a value of the wrong JSON type is treated as absent.
namespace JsonParams {

std::optional<QString> string(const QJsonObject& params, const QString& key);

// A JSON number whose value is a whole number that fits in 64 bits; booleans are not numbers.
std::optional<qint64> integer(const QJsonObject& params, const QString& key);

} // namespace JsonParams
