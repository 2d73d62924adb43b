#include "PauseCommand.h"

#include "AppState.h"
#include "OfflineState.h"

PauseCommand::PauseCommand()
    : Command(QStringLiteral("pause"),
              QStringLiteral("close the connection until resume (kept across restarts)")) {}

int PauseCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream&) const {
    AppState state(OfflineState::services(), OfflineState::options());
    state.setPaused(true);
    OfflineState::tellRunningCompanion();
    out << "Sharing paused: agents can't reach your files until you resume.\n" << Qt::flush;
    return 0;
}
