#include "CallCommand.h"

#include "FileService.h"
#include "FolderArguments.h"
#include "SharedFolder.h"

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
        "usage: quillmar-companion call METHOD [PARAMS_JSON] [--folder NAME=PATH]...");
}

int CallCommand::run(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    QString method;
    bool haveMethod = false;
    bool haveParams = false;
    QJsonObject params;
    QList<SharedFolder> folders;
    bool foldersGiven = false;

    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        QString folderSpec;
        if (argument == u"--folder") {
            if (i + 1 >= arguments.size()) {
                return usageError(err, QStringLiteral("--folder needs NAME=PATH"));
            }
            folderSpec = arguments[++i];
        } else if (argument.startsWith(QStringLiteral("--folder="))) {
            folderSpec = argument.mid(9);
        } else if (argument.startsWith(u'-') && argument.size() > 1 && haveMethod) {
            return usageError(err, QStringLiteral("unknown option %1").arg(argument));
        } else if (!haveMethod) {
            method = argument;
            haveMethod = true;
            continue;
        } else if (!haveParams) {
            QJsonParseError parseError;
            const QJsonDocument document = QJsonDocument::fromJson(argument.toUtf8(), &parseError);
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
        const std::optional<SharedFolder> folder = FolderArguments::parse(folderSpec, folderError);
        if (!folder) {
            return usageError(err, folderError);
        }
        folders.append(*folder);
        foldersGiven = true;
    }
    if (!haveMethod) {
        return usageError(err, QStringLiteral("METHOD is missing\n") + usage());
    }
    if (!foldersGiven) {
        folders = {}; // no saved folders yet on this machine
    }

    const QJsonObject result = QCoro::waitFor(FileService::handle(method, params, folders));
    out << QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Compact)) << "\n"
        << Qt::flush;
    return result.contains(QStringLiteral("error")) ? 1 : 0;
}
