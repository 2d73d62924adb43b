#pragma once

#include <QByteArray>
#include <QString>

// Who the companion says it is to the service, and how its texts name the machine and the
// place where its icon sits. The only part that differs between the Linux and the macOS build,
// chosen at compile time, so that the claim, the bridge, the tray menu and the window agree.
namespace Platform {

// The `platform` of the pairing claim: "linux".
QString claimName();
// The User-Agent of pairing and the bridge.
QByteArray userAgent();
// The device name when the system gives none.
QString fallbackDeviceName();
// What texts call the machine, as in "this computer" and "This computer is paired".
QString device();
// Where the icon lives, after "in": "the system tray".
QString iconHome();
// Where the icon's menu is reached from, after "from": "the tray or panel".
QString iconReach();

} // namespace Platform
