#include "AppIdentity.h"

#include <QStandardPaths>

QString AppIdentity::id() {
    return QStringLiteral("app.quillmar.companion");
}

QString AppIdentity::configDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + u'/' + id();
}

QString AppIdentity::dataDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u'/' + id();
}
