#include "AppIdentity.h"

#include <QDir>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

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
    // Where the running instance keeps its socket and lock. Without the variable, Qt falls back
    // to a folder of its own in the temporary folder (and warns, which a command printing JSON
    // must not), named after the user.
    QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty()) {
        const passwd* user = ::getpwuid(::geteuid());
        runtime = QDir::tempPath() + QStringLiteral("/runtime-") +
                  (user ? QString::fromLocal8Bit(user->pw_name) : QString::number(::geteuid()));
    }
    if (!runtime.isEmpty()) {
        files.append(runtime + u'/' + id());
        files.append(runtime + u'/' + id() + QStringLiteral(".socket"));
        files.append(runtime + u'/' + id() + QStringLiteral(".lock"));
    }
    return files;
}
