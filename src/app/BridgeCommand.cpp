#include "BridgeCommand.h"

#include "BridgeClient.h"
#include "FolderArguments.h"
#include "SharedFolder.h"

#include <QCoreApplication>

namespace {

int usageError(QTextStream& err, const QString& message) {
    err << "quillmar-companion bridge: " << message << "\n" << Qt::flush;
    return 2;
}

} // namespace

QString BridgeCommand::usage() {
    return QStringLiteral(
        "usage: QUILLMAR_DEVICE_TOKEN=TOKEN quillmar-companion bridge [--api URL] "
        "[--folder NAME=PATH]...");
}

int BridgeCommand::run(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    QString apiBase = qEnvironmentVariable("QUILLMAR_API");
    QList<SharedFolder> folders;

    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        QString value;
        const bool isApi = argument == u"--api" || argument.startsWith(u"--api=");
        const bool isFolder = argument == u"--folder" || argument.startsWith(u"--folder=");
        if (!isApi && !isFolder) {
            return usageError(err,
                              QStringLiteral("unexpected argument %1\n").arg(argument) + usage());
        }
        const qsizetype equals = argument.indexOf(u'=');
        if (equals >= 0) {
            value = argument.mid(equals + 1);
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            return usageError(err, isApi ? QStringLiteral("--api needs a URL")
                                         : QStringLiteral("--folder needs NAME=PATH"));
        }
        if (isApi) {
            apiBase = value;
            continue;
        }
        QString folderError;
        const std::optional<SharedFolder> folder = FolderArguments::parse(value, folderError);
        if (!folder) {
            return usageError(err, folderError);
        }
        folders.append(*folder);
    }

    const QString token = qEnvironmentVariable("QUILLMAR_DEVICE_TOKEN");
    if (token.isEmpty()) {
        return usageError(err, QStringLiteral("QUILLMAR_DEVICE_TOKEN is not set\n") + usage());
    }
    if (apiBase.isEmpty()) {
        return usageError(err, QStringLiteral("no API base: give --api URL or set QUILLMAR_API\n") +
                                   usage());
    }

    BridgeClient client;
    client.foldersProvider = [folders] { return folders; };
    client.onStatus = [&out](bool online, const QString& text) {
        out << (online ? "online " : "offline ") << text << "\n" << Qt::flush;
    };
    client.connect(token, apiBase);
    return QCoreApplication::exec();
}
