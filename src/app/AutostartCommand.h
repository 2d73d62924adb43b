#pragma once

#include <QStringList>
#include <QTextStream>

// `quillmar-companion autostart on|off`: writes or removes the XDG autostart entry of the
// current user, so the companion starts at login like other tray companions.
class AutostartCommand {
public:
    static int run(const QStringList& arguments, QTextStream& out, QTextStream& err);
    // $XDG_CONFIG_HOME/autostart/app.quillmar.companion.desktop
    static QString entryPath();
    static QByteArray entryContents(const QString& executable);
};
