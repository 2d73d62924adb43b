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

QCommandLineOption folderOption() {
    return QCommandLineOption(QStringLiteral("folder"),
                              QStringLiteral("share this folder for the call instead of the "
                                             "saved ones; a relative PATH is taken from the "
                                             "current folder"),
                              QStringLiteral("NAME=PATH"));
}

QCommandLineOption readOnlyFolderOption() {
    return QCommandLineOption(QStringLiteral("read-only-folder"),
                              QStringLiteral("the same, for a folder agents may only read"),
                              QStringLiteral("NAME=PATH"));
}

QCommandLineOption yesOption() {
    return QCommandLineOption(QStringLiteral("yes"), QStringLiteral("write without asking"));
}

} // namespace

CallCommand::CallCommand()
    : Command(QStringLiteral("call"),
              QStringLiteral("run one tool call as an agent would; prints the result")) {
    addArgument(QStringLiteral("METHOD"),
                QStringLiteral("local_list_files, local_read_file, local_search_files or "
                               "local_write_file"));
    addOptionalArgument(QStringLiteral("PARAMS_JSON"),
                        QStringLiteral("the call's parameters, a JSON object (default {})"));
    addOption(folderOption(), true);
    addOption(readOnlyFolderOption(), true);
    addOption(yesOption());
}

int CallCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                         QTextStream& err) const {
    const QStringList positional = parser.positionalArguments();
    const QString method = positional.at(0);
    QJsonObject params;
    if (positional.size() > 1) {
        QJsonParseError parseError;
        const QJsonDocument document = JsonReader::parse(positional.at(1), &parseError);
        if (parseError.error != QJsonParseError::NoError) {
            return badUsage(err, QStringLiteral("PARAMS_JSON is not valid JSON (%1 at offset %2)")
                                     .arg(parseError.errorString())
                                     .arg(parseError.offset));
        }
        if (!document.isObject()) {
            return badUsage(err, QStringLiteral("PARAMS_JSON must be a JSON object"));
        }
        params = document.object();
    }

    // In the order given, --folder and --read-only-folder alike.
    const QStringList folderValues = parser.values(folderOption());
    const QStringList readOnlyValues = parser.values(readOnlyFolderOption());
    qsizetype nextFolder = 0;
    qsizetype nextReadOnly = 0;
    QList<SharedFolder> folders;
    bool foldersGiven = false;
    for (const QString& option : parser.optionNames()) {
        const bool readOnly = option == u"read-only-folder";
        if (!readOnly && option != u"folder") {
            continue;
        }
        const QString& folderArgument =
            readOnly ? readOnlyValues.at(nextReadOnly++) : folderValues.at(nextFolder++);
        QString folderError;
        std::optional<SharedFolder> folder = FolderArguments::parse(folderArgument, folderError);
        if (!folder) {
            return badUsage(err, folderError);
        }
        folder->readOnly = readOnly;
        folders.append(*folder);
        foldersGiven = true;
    }
    const bool assumeYes = parser.isSet(yesOption());
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
