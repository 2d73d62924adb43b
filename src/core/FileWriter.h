#pragma once

#include "SharedFolder.h"

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

// local_write_file: creates or replaces one file inside a shared folder, after the user's
// approval.
class FileWriter {
public:
    // Throws ToolError before asking, FileSystemError when the write itself fails. A refusal
    // is returned as {"error": ...}.
    static QCoro::Task<QJsonObject> write(QJsonObject params, QList<SharedFolder> folders);

    // Standard alphabet, "=" padding to a multiple of four, nothing else (no line breaks).
    static std::optional<QByteArray> decodeStrictBase64(const QString& text);
};
