#pragma once

#include "Command.h"

// `quillmar-companion autostart on|off`: writes or removes the XDG autostart entry of the
// current user, so the companion starts at login like other tray companions.
class AutostartCommand : public Command {
public:
    AutostartCommand();
    // $XDG_CONFIG_HOME/autostart/app.quillmar.companion.desktop
    static QString entryPath();
    static QByteArray entryContents(const QString& executable);

protected:
    int execute(const QCommandLineParser& parser, QTextStream& out,
                QTextStream& err) const override;
};
