#include "FoldersAddCommand.h"

#include "AppState.h"
#include "OfflineState.h"

#include <QDir>
#include <QFileInfo>

namespace {

QCommandLineOption readOnlyOption() {
    return QCommandLineOption(QStringLiteral("read-only"),
                              QStringLiteral("let agents read the folder but never write in it"));
}

} // namespace

FoldersAddCommand::FoldersAddCommand()
    : Command(QStringLiteral("add"),
              QStringLiteral("share a folder; prints the name agents use for it")) {
    addArgument(QStringLiteral("PATH"),
                QStringLiteral("the folder; a relative path is taken from the current folder"));
    addOption(readOnlyOption());
}

int FoldersAddCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                               QTextStream& err) const {
    const QString path = parser.positionalArguments().front();
    const QFileInfo info(path);
    if (!info.exists()) {
        return fail(err, QStringLiteral("%1 does not exist.").arg(path));
    }
    if (!info.isDir()) {
        return fail(err, QStringLiteral("%1 is not a folder.").arg(path));
    }
    AppState state(OfflineState::services(), OfflineState::options());
    const SharedFolder added =
        state.addFolderAt(QDir::cleanPath(info.absoluteFilePath()), parser.isSet(readOnlyOption()));
    OfflineState::tellRunningCompanion();
    out << added.name << "\n" << Qt::flush;
    return 0;
}
