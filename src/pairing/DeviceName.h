#pragma once

#include <QString>

#include <optional>

// The name this machine introduces itself with when pairing: the pretty host name the user
// chose (PRETTY_HOSTNAME in machine-info), else the host name, else "My computer".
namespace DeviceName {

QString defaultMachineInfoPath();

QString current(const QString& machineInfoPath = defaultMachineInfoPath());

// PRETTY_HOSTNAME from an environment-style file with shell quoting; nothing when the file,
// the key or a usable (non-blank, well-quoted) value is missing.
std::optional<QString> prettyHostName(const QString& machineInfoPath);

// The choice itself: a pretty name wins, then a non-blank host name, then
// Platform::fallbackDeviceName().
QString choose(const std::optional<QString>& prettyName, const QString& hostName);

} // namespace DeviceName
