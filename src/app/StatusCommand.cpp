#include "StatusCommand.h"

#include "AppState.h"
#include "KeychainError.h"
#include "OfflineState.h"
#include "SingleInstance.h"

#include <QJsonObject>

namespace {

QString pairedLine(const AppState& state) {
    if (state.paired()) {
        return QStringLiteral("Paired: yes");
    }
    const std::optional<KeychainError>& unreadable = state.tokenUnreadable();
    if (!unreadable) {
        return QStringLiteral("Paired: no");
    }
    if (unreadable->kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("Paired: unknown (the keyring is locked; unlock it so the companion "
                              "can read its token)");
    }
    return QStringLiteral("Paired: unknown (the token could not be read: %1)")
        .arg(unreadable->reason());
}

} // namespace

StatusCommand::StatusCommand()
    : Command(QStringLiteral("status"),
              QStringLiteral("pairing, service, approval setting and shared folders")) {}

int StatusCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream&) const {
    const AppState state(OfflineState::services(), OfflineState::options());
    out << pairedLine(state) << "\n";
    // The running companion, if any, tells how its connection is doing.
    if (const std::optional<QJsonObject> running =
            SingleInstance::ask(SingleInstance::defaultDirectory(), QByteArrayLiteral("status"))) {
        const QJsonObject now = running->value(QStringLiteral("state")).toObject();
        out << "Running: "
            << (running->value(QStringLiteral("mode")).toString() == u"headless"
                    ? QStringLiteral("headless")
                    : QStringLiteral("in the tray"))
            << " (process " << running->value(QStringLiteral("pid")).toInteger() << ")\n";
        out << "Connection: " << now.value(QStringLiteral("status")).toString() << "\n";
        if (now.value(QStringLiteral("paused")).toBool()) {
            out << "Sharing: paused (quillmar-companion resume to go on)\n";
        }
        const QString problem = now.value(QStringLiteral("problem")).toString();
        if (!problem.isEmpty()) {
            out << "Why: " << problem << "\n";
        }
    } else if (const qint64 holder = SingleInstance::holder(SingleInstance::defaultDirectory())) {
        out << "Running: yes (process " << holder << "), but it does not answer\n";
    } else {
        out << "Running: no\n";
        if (state.paused()) {
            out << "Sharing: paused (quillmar-companion resume to go on)\n";
        }
    }
    out << "API: " << state.apiBase() << "\n";
    out << "Ask before writing files: " << (state.requireWriteApproval() ? "on" : "off") << "\n";
    out << state.fileAccessText() << "\n";
    out << "Shared folders: " << state.folders().size() << "\n";
    for (const SharedFolder& folder : state.folders()) {
        out << "  " << OfflineState::folderLine(folder) << "\n";
    }
    out << Qt::flush;
    return 0;
}
