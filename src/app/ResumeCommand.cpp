#include "ResumeCommand.h"

#include "AppState.h"
#include "OfflineState.h"

ResumeCommand::ResumeCommand()
    : Command(QStringLiteral("resume"),
              QStringLiteral("let agents reach the shared folders again")) {}

int ResumeCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream&) const {
    AppState state(OfflineState::services(), OfflineState::options());
    state.setPaused(false);
    OfflineState::tellRunningCompanion();
    out << "Sharing resumed.\n" << Qt::flush;
    return 0;
}
