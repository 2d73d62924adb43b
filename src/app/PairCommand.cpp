#include "PairCommand.h"

#include "AppState.h"
#include "OfflineState.h"

#include <QCoroTask>

PairCommand::PairCommand()
    : Command(QStringLiteral("pair"),
              QStringLiteral("pair this computer with a code from the web app")) {
    addArgument(QStringLiteral("CODE"), QStringLiteral("the pairing code the web app shows"));
}

int PairCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                         QTextStream& err) const {
    AppState state(OfflineState::services(), OfflineState::options());
    QCoro::waitFor(state.pairAndWait(parser.positionalArguments().front()));
    if (!state.paired() || state.hasPairError()) {
        err << state.pairErrorText() << "\n" << Qt::flush;
        return 1;
    }
    OfflineState::tellRunningCompanion();
    out << "Paired with " << state.apiBase() << "\n" << Qt::flush;
    return 0;
}
