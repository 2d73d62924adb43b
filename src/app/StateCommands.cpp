#include "StateCommands.h"

#include "ActivityEntry.h"
#include "AppState.h"
#include "KeychainError.h"
#include "SingleInstance.h"

#include <QCoroTask>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

namespace {

int usage(QTextStream& err, const QString& text) {
    err << "usage: quillmar-companion " << text << "\n" << Qt::flush;
    return 2;
}

int fail(QTextStream& err, const QString& text) {
    err << "quillmar-companion: " << text << "\n" << Qt::flush;
    return 1;
}

AppState& offlineState() {
    AppState::setBridgeEnabled(false);
    return AppState::shared();
}

// A running companion reads what a command changed at once, instead of at its next start.
void tellRunningCompanion() {
    SingleInstance::ask(SingleInstance::defaultDirectory(), QByteArrayLiteral("reload"));
}

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

QString unremovedText(const KeychainError& error) {
    if (error.kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("the keyring is locked, so the pairing could not be removed. Unlock "
                              "the keyring and run unpair again.");
    }
    return QStringLiteral("the pairing could not be removed: %1.").arg(error.reason());
}

QString accessWord(const SharedFolder& folder) {
    return folder.readOnly ? QStringLiteral("read-only") : QStringLiteral("read-write");
}

} // namespace

int StateCommands::pair(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (arguments.size() != 1) {
        return usage(err, QStringLiteral("pair CODE"));
    }
    AppState& state = offlineState();
    QCoro::waitFor(state.pairAndWait(arguments.front()));
    if (!state.paired() || state.hasPairError()) {
        err << state.pairErrorText() << "\n" << Qt::flush;
        return 1;
    }
    tellRunningCompanion();
    out << "Paired with " << state.apiBase() << "\n" << Qt::flush;
    return 0;
}

int StateCommands::unpair(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("unpair"));
    }
    AppState& state = offlineState();
    const bool wasPaired = state.paired();
    const std::optional<KeychainError> failure = QCoro::waitFor(state.unpairAndWait());
    if (failure) {
        return fail(err, unremovedText(*failure));
    }
    tellRunningCompanion();
    out << (wasPaired ? "Unpaired\n" : "Not paired\n") << Qt::flush;
    return 0;
}

int StateCommands::status(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("status"));
    }
    const AppState& state = offlineState();
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
        out << "  " << folder.name << "\t" << folder.path << "\t" << accessWord(folder) << "\n";
    }
    out << Qt::flush;
    return 0;
}

int StateCommands::folders(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    const QString usageText = QStringLiteral(
        "folders [add PATH [--read-only] | remove NAME | access NAME read-only|read-write]");
    if (arguments.isEmpty()) {
        for (const SharedFolder& folder : offlineState().folders()) {
            out << folder.name << "\t" << folder.path << "\t" << accessWord(folder) << "\n";
        }
        out << Qt::flush;
        return 0;
    }
    if (arguments[0] == u"add") {
        QStringList rest = arguments.mid(1);
        const bool readOnly = rest.removeAll(QStringLiteral("--read-only")) > 0;
        if (rest.size() != 1) {
            return usage(err, usageText);
        }
        const QFileInfo info(rest[0]);
        if (!info.exists()) {
            return fail(err, QStringLiteral("%1 does not exist.").arg(rest[0]));
        }
        if (!info.isDir()) {
            return fail(err, QStringLiteral("%1 is not a folder.").arg(rest[0]));
        }
        const SharedFolder added =
            offlineState().addFolderAt(QDir::cleanPath(info.absoluteFilePath()), readOnly);
        tellRunningCompanion();
        out << added.name << "\n" << Qt::flush;
        return 0;
    }
    if (arguments[0] == u"remove" && arguments.size() == 2) {
        AppState& state = offlineState();
        for (const SharedFolder& folder : state.folders()) {
            if (folder.name == arguments[1]) {
                const SharedFolder removed = folder;
                state.removeFolder(removed);
                tellRunningCompanion();
                out << "Stopped sharing " << removed.name << "\n" << Qt::flush;
                return 0;
            }
        }
        return fail(err, QStringLiteral("No shared folder named '%1'.").arg(arguments[1]));
    }
    if (arguments[0] == u"access" && arguments.size() == 3 &&
        (arguments[2] == u"read-only" || arguments[2] == u"read-write")) {
        AppState& state = offlineState();
        for (const SharedFolder& folder : state.folders()) {
            if (folder.name == arguments[1]) {
                const SharedFolder changed = folder;
                const bool readOnly = arguments[2] == u"read-only";
                state.setFolderReadOnly(changed, readOnly);
                tellRunningCompanion();
                out << changed.name << "\t" << changed.path << "\t" << arguments[2] << "\n"
                    << Qt::flush;
                return 0;
            }
        }
        return fail(err, QStringLiteral("No shared folder named '%1'.").arg(arguments[1]));
    }
    return usage(err, usageText);
}

int StateCommands::approval(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (arguments.size() != 1 || (arguments[0] != u"on" && arguments[0] != u"off")) {
        return usage(err, QStringLiteral("approval on|off"));
    }
    const bool on = arguments[0] == u"on";
    offlineState().storeRequireWriteApproval(on);
    tellRunningCompanion();
    out << "Ask before writing files: " << (on ? "on" : "off") << "\n" << Qt::flush;
    return 0;
}

int StateCommands::pause(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("pause"));
    }
    offlineState().setPaused(true);
    tellRunningCompanion();
    out << "Sharing paused: agents can't reach your files until you resume.\n" << Qt::flush;
    return 0;
}

int StateCommands::resume(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("resume"));
    }
    offlineState().setPaused(false);
    tellRunningCompanion();
    out << "Sharing resumed.\n" << Qt::flush;
    return 0;
}

int StateCommands::activity(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("activity"));
    }
    const std::optional<QJsonObject> running =
        SingleInstance::ask(SingleInstance::defaultDirectory(), QByteArrayLiteral("activity"));
    if (!running) {
        return fail(err, QStringLiteral("the companion is not running. Agents' calls are listed "
                                        "only while it runs, and nothing of them is kept."));
    }
    const QJsonArray entries = running->value(QStringLiteral("activity")).toArray();
    if (entries.isEmpty()) {
        out << "No agent calls yet.\n" << Qt::flush;
        return 0;
    }
    for (const QJsonValue& value : entries) {
        if (const std::optional<ActivityEntry> entry = ActivityEntry::fromJson(value.toObject())) {
            out << entry->line() << "\n";
        }
    }
    out << Qt::flush;
    return 0;
}
