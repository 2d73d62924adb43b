#include "CallCommand.h"

#include "AccessPolicy.h"
#include "AppIdentity.h"
#include "AppSettings.h"
#include "AppState.h"
#include "Confinement.h"
#include "FileService.h"
#include "FileWorker.h"
#include "FolderArguments.h"
#include "FolderStore.h"
#include "JsonReader.h"
#include "SharedFolder.h"
#include "TerminalApprovalPrompt.h"
#include "ToolSandbox.h"
#include "VersionStore.h"

#include <QCoroTask>
#include <QFileInfo>
#include <QJsonDocument>

namespace {

int usageError(QTextStream& err, const QString& message) {
    err << "quillmar-companion call: " << message << "\n" << Qt::flush;
    return 2;
}

} // namespace

QString CallCommand::usage() {
    return QStringLiteral(
        "usage: quillmar-companion call METHOD [PARAMS_JSON] [--folder NAME=PATH]...\n"
        "       [--read-only-folder NAME=PATH]... [--yes]");
}

int CallCommand::run(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    QString method;
    bool haveMethod = false;
    bool haveParams = false;
    QJsonObject params;
    QList<SharedFolder> folders;
    bool foldersGiven = false;
    bool assumeYes = false;

    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        QString folderSpec;
        bool readOnly = false;
        if (argument == u"--yes") {
            assumeYes = true;
            continue;
        }
        if (argument == u"--folder") {
            if (i + 1 >= arguments.size()) {
                return usageError(err, QStringLiteral("--folder needs NAME=PATH"));
            }
            folderSpec = arguments[++i];
        } else if (argument.startsWith(QStringLiteral("--folder="))) {
            folderSpec = argument.mid(9);
        } else if (argument == u"--read-only-folder") {
            if (i + 1 >= arguments.size()) {
                return usageError(err, QStringLiteral("--read-only-folder needs NAME=PATH"));
            }
            folderSpec = arguments[++i];
            readOnly = true;
        } else if (argument.startsWith(QStringLiteral("--read-only-folder="))) {
            folderSpec = argument.mid(19);
            readOnly = true;
        } else if (argument.startsWith(u'-') && argument.size() > 1 && haveMethod) {
            return usageError(err, QStringLiteral("unknown option %1").arg(argument));
        } else if (!haveMethod) {
            method = argument;
            haveMethod = true;
            continue;
        } else if (!haveParams) {
            QJsonParseError parseError;
            const QJsonDocument document = JsonReader::parse(argument, &parseError);
            if (parseError.error != QJsonParseError::NoError) {
                return usageError(err,
                                  QStringLiteral("PARAMS_JSON is not valid JSON (%1 at offset %2)")
                                      .arg(parseError.errorString())
                                      .arg(parseError.offset));
            }
            if (!document.isObject()) {
                return usageError(err, QStringLiteral("PARAMS_JSON must be a JSON object"));
            }
            params = document.object();
            haveParams = true;
            continue;
        } else {
            return usageError(err, QStringLiteral("unexpected argument %1").arg(argument));
        }

        QString folderError;
        std::optional<SharedFolder> folder = FolderArguments::parse(folderSpec, folderError);
        if (!folder) {
            return usageError(err, folderError);
        }
        folder->readOnly = readOnly;
        folders.append(*folder);
        foldersGiven = true;
    }
    if (!haveMethod) {
        return usageError(err, QStringLiteral("METHOD is missing\n") + usage());
    }
    if (!foldersGiven) {
        folders = FolderStore::activate(FolderStore::load());
    }

    // A write is allowed by --yes, by the user's setting being off, or by an answer on the
    // terminal; with no terminal to ask, it is refused. The setting is read now: once confined,
    // this process cannot reach the companion's settings any more.
    const bool ask =
        !assumeYes && AppSettings::boolean(AppState::approvalSettingKey()).value_or(true);
    ToolResult result;
    if (method == u"local_write_file") {
        // A write keeps what it replaces in the companion's data folder, which a confined
        // process cannot reach: it runs in the companion's worker, as the bridge's writes do.
        VersionStore versions(VersionStore::defaultDirectory(), VersionStore::defaultBudget());
        FileWorker worker(FileWorker::defaultProgram(),
                          [ask](QString path, qint64 bytes) -> QCoro::Task<bool> {
                              if (!ask) {
                                  co_return true;
                              }
                              TerminalApprovalPrompt prompt;
                              const bool allowed = co_await prompt.ask(path, bytes);
                              co_return allowed;
                          });
        worker.setFolders(folders);
        worker.setOwnFiles(AppIdentity::ownFiles());
        worker.setVersionStore(&versions);
        result = QCoro::waitFor(worker.run(method, params));
    } else {
        const AccessPolicy policy(folders, AppIdentity::ownFiles());
        // One call, one process: it confines itself as the companion's file-tool worker does.
        ToolSandbox::enter(folders, Confinement::wanted());
        // The same text the bridge sends; a listing comes as ready JSON, which is never an error.
        result = FileService::execute(method, params, policy, {});
    }
    if (result.isJson()) {
        out << QString::fromUtf8(result.json()) << "\n" << Qt::flush;
        return 0;
    }
    const QJsonObject object = result.toObject();
    out << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) << "\n"
        << Qt::flush;
    return object.contains(QStringLiteral("error")) ? 1 : 0;
}
