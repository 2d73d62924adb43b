#pragma once

#include <QByteArray>
#include <QLoggingCategory>
#include <QSettings>
#include <QString>
#include <QVariant>

#include <memory>
#include <optional>

Q_DECLARE_LOGGING_CATEGORY(lcSettings)

// The user's settings: an INI file in the application's config folder. INI keeps no types, so
// booleans are the words "true" and "false" and binary data is marked by Qt as @ByteArray.
namespace AppSettings {

QString filePath();
std::unique_ptr<QSettings> open();

// The data value under `key`, or nothing when absent or of another type.
std::optional<QByteArray> data(const QString& key);
void setData(const QString& key, const QByteArray& value);

// The boolean under `key`, or nothing when absent or not a boolean.
std::optional<bool> boolean(const QString& key);
void setBoolean(const QString& key, bool value);

} // namespace AppSettings
