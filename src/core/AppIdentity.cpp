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

QStringList AppIdentity::ownFiles() {
    QStringList files{configDirectory(), dataDirectory(),
                      QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                          u'/' + id(),
                      QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                          QStringLiteral("/autostart/") + id() + QStringLiteral(".desktop")};
    // Where the running instance keeps its socket and lock (QStandardPaths falls back to a
    // folder of its own, with a warning, when the variable is not set).
    QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty()) {
        runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    }
    if (!runtime.isEmpty()) {
        files.append(runtime + u'/' + id());
        files.append(runtime + u'/' + id() + QStringLiteral(".socket"));
        files.append(runtime + u'/' + id() + QStringLiteral(".lock"));
    }
    return files;
}
