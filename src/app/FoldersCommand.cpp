#include "FoldersCommand.h"

#include "AppState.h"
#include "FoldersAccessCommand.h"
#include "FoldersAddCommand.h"
#include "FoldersRemoveCommand.h"
#include "OfflineState.h"

FoldersCommand::FoldersCommand()
    : Command(QStringLiteral("folders"),
              QStringLiteral("list the shared folders, one \"NAME<TAB>PATH<TAB>ACCESS\" per line "
                             "(ACCESS: read-write or read-only)")) {
    addSubcommand(std::make_unique<FoldersAddCommand>());
    addSubcommand(std::make_unique<FoldersRemoveCommand>());
    addSubcommand(std::make_unique<FoldersAccessCommand>());
}

int FoldersCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream&) const {
    AppState state(OfflineState::services(), OfflineState::options());
    for (const SharedFolder& folder : state.folders()) {
        out << OfflineState::folderLine(folder) << "\n";
    }
    out << Qt::flush;
    return 0;
}
