#include "AppSettings.h"

#include "AppIdentity.h"

#include <QDir>

QString AppSettings::filePath() {
    return AppIdentity::configDirectory() + QStringLiteral("/settings.conf");
}

std::unique_ptr<QSettings> AppSettings::open() {
    QDir().mkpath(AppIdentity::configDirectory());
    return std::make_unique<QSettings>(filePath(), QSettings::IniFormat);
}

std::optional<QByteArray> AppSettings::data(const QString& key) {
    const QVariant value = open()->value(key);
    if (value.typeId() != QMetaType::QByteArray) {
        return std::nullopt;
    }
    return value.toByteArray();
}

void AppSettings::setData(const QString& key, const QByteArray& value) {
    auto settings = open();
    settings->setValue(key, value);
    settings->sync();
}

std::optional<bool> AppSettings::boolean(const QString& key) {
    const QVariant value = open()->value(key);
    if (value.typeId() == QMetaType::Bool) {
        return value.toBool();
    }
    if (value.typeId() == QMetaType::QString) {
        if (value.toString() == u"true") {
            return true;
        }
        if (value.toString() == u"false") {
            return false;
        }
    }
    return std::nullopt;
}

void AppSettings::setBoolean(const QString& key, bool value) {
    auto settings = open();
    settings->setValue(key, value);
    settings->sync();
}
