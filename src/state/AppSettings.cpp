#include "AppSettings.h"

#include "AppIdentity.h"

#include <QDir>

Q_LOGGING_CATEGORY(lcSettings, "quillmar.settings", QtWarningMsg)

namespace {

// The write reaches the file here; a failure leaves the old value in place.
void store(const QString& key, const QVariant& value) {
    const std::unique_ptr<QSettings> settings = AppSettings::open();
    settings->setValue(key, value);
    settings->sync();
    if (settings->status() != QSettings::NoError) {
        qCWarning(lcSettings) << "could not save" << key << "to" << settings->fileName();
    }
}

} // namespace

QString AppSettings::filePath() {
    return AppIdentity::configDirectory() + QStringLiteral("/settings.conf");
}

std::unique_ptr<QSettings> AppSettings::open() {
    if (!QDir().mkpath(AppIdentity::configDirectory())) {
        qCWarning(lcSettings) << "could not make" << AppIdentity::configDirectory();
    }
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
    store(key, value);
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
    store(key, value);
}
