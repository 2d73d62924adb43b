#pragma once

#include <QJsonArray>
#include <QString>

// The four file tools as a Model Context Protocol server lists them: the same names and
// parameters the service's agents use, each with a one-line description for a model and a JSON
// Schema of its arguments.
namespace McpTools {

QJsonArray list();
bool exists(const QString& name);

} // namespace McpTools
