#include "McpTools.h"

#include <QJsonObject>

namespace {

QJsonObject text(const QString& description) {
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("string")},
                       {QStringLiteral("description"), description}};
}

QJsonObject tool(const QString& name, const QString& title, const QString& description,
                 const QJsonObject& properties, const QJsonArray& required, bool readOnly) {
    QJsonObject schema{{QStringLiteral("type"), QStringLiteral("object")},
                       {QStringLiteral("properties"), properties}};
    if (!required.isEmpty()) {
        schema.insert(QStringLiteral("required"), required);
    }
    return QJsonObject{
        {QStringLiteral("name"), name},
        {QStringLiteral("title"), title},
        {QStringLiteral("description"), description},
        {QStringLiteral("inputSchema"), schema},
        {QStringLiteral("annotations"), QJsonObject{{QStringLiteral("readOnlyHint"), readOnly},
                                                    {QStringLiteral("destructiveHint"), !readOnly},
                                                    {QStringLiteral("openWorldHint"), false}}}};
}

const QString pathHelp =
    QStringLiteral("A shared folder's name, then the path inside it, e.g. \"Reports/2024/q1.md\".");

} // namespace

namespace McpTools {

QJsonArray list() {
    static const QJsonArray tools{
        tool(QStringLiteral("local_list_files"), QStringLiteral("List files"),
             QStringLiteral("List the folders the user shares (no path), or the files and "
                            "folders inside one with their type, size and modification time."),
             QJsonObject{{QStringLiteral("path"),
                          text(pathHelp + QStringLiteral(" Leave it out to list the shared "
                                                         "folders."))}},
             {}, true),
        tool(QStringLiteral("local_read_file"), QStringLiteral("Read a file"),
             QStringLiteral("Read a text file in a shared folder; a long file comes back cut "
                            "short, with truncated set to true."),
             QJsonObject{{QStringLiteral("path"), text(pathHelp)}},
             QJsonArray{QStringLiteral("path")}, true),
        tool(QStringLiteral("local_search_files"), QStringLiteral("Search by name"),
             QStringLiteral("Find files and folders in the shared folders whose names match a "
                            "shell wildcard (\"*.md\") or contain a piece of text."),
             QJsonObject{{QStringLiteral("query"),
                          text(QStringLiteral("A wildcard such as \"*.pdf\", or text the name "
                                              "contains."))},
                         {QStringLiteral("max_results"),
                          QJsonObject{{QStringLiteral("type"), QStringLiteral("integer")},
                                      {QStringLiteral("description"),
                                       QStringLiteral("At most this many matches (default 25, "
                                                      "at most 100).")},
                                      {QStringLiteral("minimum"), 1},
                                      {QStringLiteral("maximum"), 100}}}},
             QJsonArray{QStringLiteral("query")}, true),
        tool(QStringLiteral("local_write_file"), QStringLiteral("Write a file"),
             QStringLiteral("Create or replace a file in a shared folder with text (content) or "
                            "bytes (content_base64); the user may be asked first."),
             QJsonObject{
                 {QStringLiteral("path"), text(pathHelp)},
                 {QStringLiteral("content"), text(QStringLiteral("The new text of the file."))},
                 {QStringLiteral("content_base64"),
                  text(QStringLiteral("The new bytes of the file, in base64 (standard alphabet, "
                                      "with padding); used instead of content."))}},
             QJsonArray{QStringLiteral("path")}, false),
    };
    return tools;
}

bool exists(const QString& name) {
    for (const QJsonValue& each : list()) {
        if (each.toObject().value(QStringLiteral("name")).toString() == name) {
            return true;
        }
    }
    return false;
}

} // namespace McpTools
