#include "ApprovalCommand.h"

#include "AppState.h"
#include "OfflineState.h"

ApprovalCommand::ApprovalCommand()
    : Command(QStringLiteral("approval"),
              QStringLiteral("ask before each agent write (on), or not (off)")) {
    addChoiceArgument(QStringLiteral("SETTING"), QStringLiteral("on, the default, or off"),
                      {QStringLiteral("on"), QStringLiteral("off")});
}

int ApprovalCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                             QTextStream&) const {
    const bool on = parser.positionalArguments().front() == u"on";
    AppState state(OfflineState::services(), OfflineState::options());
    state.storeRequireWriteApproval(on);
    OfflineState::tellRunningCompanion();
    out << "Ask before writing files: " << (on ? "on" : "off") << "\n" << Qt::flush;
    return 0;
}
