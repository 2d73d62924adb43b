#pragma once

#include <QString>
#include <QStringList>

// Where this application keeps its things. Everything persistent lives under the XDG base
// directories, so HOME / XDG_CONFIG_HOME / XDG_DATA_HOME isolate an instance completely.
namespace AppIdentity {

// Reverse-DNS identifier: secret-store service, desktop file and settings folder name.
QString id();
// $XDG_CONFIG_HOME/app.quillmar.companion
QString configDirectory();
// $XDG_DATA_HOME/app.quillmar.companion
QString dataDirectory();
// Everything of the companion's own that agents must never reach, even inside a shared
// folder: settings, data (the token file, kept versions), cache, autostart entry and the
// runtime files of the running instance.
QStringList ownFiles();

} // namespace AppIdentity
