#include "PrivateRuntime.h"

#include <QDir>
#include <QFile>
#include <QSettings>

PrivateRuntime::PrivateRuntime()
    : m_dir(QDir::tempPath() + QStringLiteral("/quillmar-runtime-XXXXXX")) {
    if (!m_dir.isValid()) {
        qFatal("cannot create a runtime folder");
    }
    QFile::setPermissions(m_dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_dir.path()));
    const QString config = m_dir.path() + QStringLiteral("/config");
    QDir().mkpath(config);
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(config));
    // The first QSettings fixes the folder of Qt's user settings for the rest of the process.
    QSettings pin(QSettings::UserScope, QStringLiteral("QtProject"));
}
