#include "UnpairCommand.h"

#include "AppState.h"
#include "KeychainError.h"
#include "OfflineState.h"

#include <QCoroTask>

namespace {

QString unremovedText(const KeychainError& error) {
    if (error.kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("the keyring is locked, so the pairing could not be removed. Unlock "
                              "the keyring and run unpair again.");
    }
    return QStringLiteral("the pairing could not be removed: %1.").arg(error.reason());
}

} // namespace

UnpairCommand::UnpairCommand()
    : Command(QStringLiteral("unpair"),
              QStringLiteral("forget the pairing (the shared folders are kept)")) {}

int UnpairCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream& err) const {
    AppState state(OfflineState::services(), OfflineState::options());
    const bool wasPaired = state.paired();
    const std::optional<KeychainError> failure = QCoro::waitFor(state.unpairAndWait());
    if (failure) {
        return fail(err, unremovedText(*failure));
    }
    OfflineState::tellRunningCompanion();
    out << (wasPaired ? "Unpaired\n" : "Not paired\n") << Qt::flush;
    return 0;
}
