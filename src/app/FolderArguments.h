#pragma once

#include "SharedFolder.h"

#include <QString>

#include <optional>

// The command line's "--folder NAME=PATH" values, shared by the subcommands that run tools.
namespace FolderArguments {

// A folder with a fresh id; a relative PATH is taken from the current directory. Without a
// name or a path, gives nothing and sets `error` to the usage message.
std::optional<SharedFolder> parse(const QString& argument, QString& error);

} // namespace FolderArguments
