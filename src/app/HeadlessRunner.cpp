#include "HeadlessRunner.h"

#include "ActivityLog.h"
#include "AppState.h"
#include "BridgeClient.h"
#include "KeychainError.h"
#include "QuitOnSignals.h"
#include "SingleInstance.h"
#include "StateAnnouncer.h"
#include "TerminalApprovalPrompt.h"

#include <QCoreApplication>

namespace {

QString runningElsewhereText(const SingleInstance& instance) {
    const QString mode = instance.runningMode() == u"headless"
                             ? QStringLiteral("quillmar-companion --headless")
                             : QStringLiteral("the desktop companion, in the tray");
    return QStringLiteral("a Quillmar companion is already running (%1, process %2) and keeps "
                          "the connection; stop it first.")
        .arg(mode)
        .arg(instance.runningProcess());
}

QString unreadablePairingText(const KeychainError& error) {
    if (error.kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("the keyring is locked, so the companion cannot read its pairing. "
                              "Unlock the keyring and start the companion again.");
    }
    return QStringLiteral("the companion cannot read its pairing: %1.").arg(error.reason());
}

} // namespace

int HeadlessRunner::run(QTextStream& out, QTextStream& err) {
    // Two companions for one account would knock each other's connection off.
    SingleInstance instance;
    switch (instance.start(std::chrono::seconds(5), SingleInstance::Launch::Headless)) {
    case SingleInstance::Role::HandedOver:
    case SingleInstance::Role::RunningElsewhere:
        err << "quillmar-companion: " << runningElsewhereText(instance) << "\n" << Qt::flush;
        return 1;
    case SingleInstance::Role::Unanswered:
        err << "quillmar-companion: a Quillmar companion is already running but does not "
               "answer.\n"
            << Qt::flush;
        return 1;
    case SingleInstance::Role::Primary:
    case SingleInstance::Role::Alone:
        break;
    }
    instance.setMode(QStringLiteral("headless"));
    QuitOnSignals quitOnSignals;
    if (!quitOnSignals.active()) {
        err << "quillmar-companion: cannot set up signal handling\n" << Qt::flush;
        return 1;
    }

    AppState state(AppServices{std::make_shared<TerminalApprovalPrompt>(), nullptr, Keychain()});
    StateAnnouncer announcer(state, instance);
    QString lastStatus;
    QString lastProblem;
    const auto tell = [&] {
        if (state.statusText() != lastStatus) {
            lastStatus = state.statusText();
            out << lastStatus << "\n" << Qt::flush;
        }
        // Why, on a line of its own after the status it explains, each time the reason changes.
        if (state.connectionProblem() != lastProblem) {
            lastProblem = state.connectionProblem();
            if (!lastProblem.isEmpty()) {
                out << lastProblem << "\n" << Qt::flush;
            }
        }
    };
    QObject::connect(&state, &AppState::changed, tell);

    if (const std::optional<KeychainError>& unreadable = state.tokenUnreadable()) {
        err << "quillmar-companion: " << unreadablePairingText(*unreadable) << "\n" << Qt::flush;
        return 1;
    }
    if (!state.paired()) {
        err << "quillmar-companion: this computer is not paired. Pair it first with: "
               "quillmar-companion pair CODE\n"
            << Qt::flush;
        return 1;
    }
    if (state.requireWriteApproval() && !TerminalApprovalPrompt::terminalAvailable()) {
        out << "Ask before writing files is on and there is no terminal to ask: agent writes "
               "will be refused. Turn it off with: quillmar-companion approval off\n"
            << Qt::flush;
    }
    out << "Sharing " << state.folders().size()
        << (state.folders().size() == 1 ? " folder" : " folders") << " with " << state.apiBase()
        << "\n"
        << state.fileAccessText() << "\n"
        << Qt::flush;
    // The first worker tells what it really got; said again only when that differs.
    QString lastAccess = state.fileAccessText();
    QObject::connect(&state, &AppState::fileAccessChanged, [&] {
        if (state.fileAccessText() != lastAccess) {
            lastAccess = state.fileAccessText();
            out << lastAccess << "\n" << Qt::flush;
        }
    });
    // One line per agent call, as it finishes.
    QObject::connect(&state.activity(), &ActivityLog::appended, [&] {
        out << state.activity().at(0).line() << "\n" << Qt::flush;
    });
    // The bridge reported its first status before anyone listened.
    tell();

    const int status = QCoreApplication::exec();
    QObject::disconnect(&state, &AppState::changed, nullptr, nullptr);
    state.bridge().disconnect();
    out << "Stopped\n" << Qt::flush;
    return status;
}
