#pragma once

#include "AccessPolicy.h"
#include "SharedFolder.h"
#include "ToolResult.h"
#include "WriteApprover.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>

class WriteRecorder;

// The one entry point for the agents' tool calls. Stateless: every call gets the shared folders
// it may touch and returns one object, either the tool's result or {"error": message}.
namespace FileService {

// Never throws. A coroutine, because a tool may have to wait for the user without blocking
// the event loop. The companion's own files are kept out of reach. A write happens only when
// `approve` allows it.
QCoro::Task<QJsonObject> handle(QString method, QJsonObject params, QList<SharedFolder> folders,
                                WriteApprover approve = {});
// The same call, but a big answer (a folder listing) may come back as ready JSON text, the
// same bytes QJsonDocument would write for handle()'s object.
QCoro::Task<ToolResult> run(QString method, QJsonObject params, QList<SharedFolder> folders,
                            WriteApprover approve = {});

// Asked once before a write, after every check: true lets it happen. `shownPath` is what
// the user is to be shown.
using Approver = std::function<bool(const QString& shownPath, qint64 bytes)>;
// The same call for a process that answers calls one by one and may block while the user
// is asked. Never throws; listings come as JSON text. `recorder` is told what a write
// replaces or creates.
ToolResult execute(const QString& method, const QJsonObject& params, const AccessPolicy& policy,
                   const Approver& approve, WriteRecorder* recorder = nullptr);

QJsonObject errorObject(const QString& message);

} // namespace FileService
