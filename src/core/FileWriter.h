#pragma once

#include "AccessPolicy.h"
#include "PendingWrite.h"
#include "WriteApprover.h"

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QString>

#include <optional>

class WriteRecorder;

// local_write_file: creates or replaces one file inside a shared folder, after the user's
// approval. In three steps, so that the question can be asked anywhere in between: prepare
// (every check, nothing touched), the approval, commit.
namespace FileWriter {

// Throws ToolError before anything is asked or touched.
PendingWrite prepare(const QJsonObject& params, const AccessPolicy& policy);
// Throws FileSystemError when the write fails, ToolError when the place has left the shared
// folders since it was checked. `recorder`, when given, is told what is replaced or made.
QJsonObject commit(PendingWrite& write, const AccessPolicy& policy,
                   WriteRecorder* recorder = nullptr);
// The refusal for a write into a folder shared read-only.
QString readOnlyMessage(const QString& folderName);
// The answer when the user said no.
QJsonObject declined();

// All three, asking `approve` (none refuses). Throws as prepare and commit do.
QCoro::Task<QJsonObject> write(QJsonObject params, AccessPolicy policy, WriteApprover approve);

// Standard alphabet, "=" padding to a multiple of four, nothing else (no line breaks).
std::optional<QByteArray> decodeStrictBase64(const QString& text);

} // namespace FileWriter
