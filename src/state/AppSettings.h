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
class AppSettings {
public:
    static QString filePath();
    static std::unique_ptr<QSettings> open();

    // The data value under `key`, or nothing when absent or of another type.
    static std::optional<QByteArray> data(const QString& key);
    static void setData(const QString& key, const QByteArray& value);

    // The boolean under `key`, or nothing when absent or not a boolean.
    static std::optional<bool> boolean(const QString& key);
    static void setBoolean(const QString& key, bool value);
};
