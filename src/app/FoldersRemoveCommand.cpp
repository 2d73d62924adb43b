#include "FoldersRemoveCommand.h"

#include "AppState.h"
#include "OfflineState.h"

FoldersRemoveCommand::FoldersRemoveCommand()
    : Command(QStringLiteral("remove"),
              QStringLiteral("stop sharing the first folder of that name")) {
    addArgument(QStringLiteral("NAME"), QStringLiteral("the folder's name, as folders lists it"));
}

int FoldersRemoveCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                                  QTextStream& err) const {
    const QString name = parser.positionalArguments().front();
    AppState state(OfflineState::services(), OfflineState::options());
    for (const SharedFolder& folder : state.folders()) {
        if (folder.name == name) {
            const SharedFolder removed = folder;
            state.removeFolder(removed);
            OfflineState::tellRunningCompanion();
            out << "Stopped sharing " << removed.name << "\n" << Qt::flush;
            return 0;
        }
    }
    return fail(err, QStringLiteral("No shared folder named '%1'.").arg(name));
}
