#include "CompanionSandbox.h"

#include <QDir>
#include <QFile>

CompanionSandbox::CompanionSandbox(Bus bus) : m_bus(bus) {
    m_valid =
        m_dir.isValid() && QDir().mkpath(configHome()) && QDir().mkpath(dataHome()) &&
        QDir().mkdir(runtimeDir()) &&
        QFile::setPermissions(runtimeDir(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString CompanionSandbox::home() const {
    return m_dir.filePath(QStringLiteral("home"));
}

QString CompanionSandbox::configHome() const {
    return home() + QStringLiteral("/.config");
}

QString CompanionSandbox::dataHome() const {
    return home() + QStringLiteral("/.local/share");
}

QString CompanionSandbox::runtimeDir() const {
    return m_dir.filePath(QStringLiteral("runtime"));
}

QString CompanionSandbox::settingsFile() const {
    return configHome() + QStringLiteral("/app.quillmar.companion/settings.conf");
}

QString CompanionSandbox::tokenFile() const {
    return dataHome() + QStringLiteral("/app.quillmar.companion/device_token");
}

QProcessEnvironment CompanionSandbox::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // Nothing of the user's session may leak in: no display (no unlock prompt can appear), no
    // desktop, and no product variables from the shell that started the tests.
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP", "DESKTOP_SESSION",
                             "KDE_FULL_SESSION", "GNOME_KEYRING_CONTROL", "XDG_STATE_HOME",
                             "QUILLMAR_API", "QUILLMAR_SHOW_ONBOARDING"}) {
        environment.remove(QString::fromLatin1(name));
    }
    // Nor the machine's way out: its proxies and extra authorities are for other programs.
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
          "no_proxy", "NO_PROXY", "SSL_CERT_FILE", "SSL_CERT_DIR"}) {
        environment.remove(QString::fromLatin1(name));
    }
    if (m_bus == Bus::None) {
        environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    }
    environment.insert(QStringLiteral("HOME"), home());
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome());
    environment.insert(QStringLiteral("XDG_DATA_HOME"), dataHome());
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), home() + QStringLiteral("/.cache"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDir());
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    if (!m_apiBase.isEmpty()) {
        environment.insert(QStringLiteral("QUILLMAR_API"), m_apiBase);
    }
    environment.insert(m_extra);
    return environment;
}
