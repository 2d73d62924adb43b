#include "HistoryCommands.h"

#include "AccessPolicy.h"
#include "AppIdentity.h"
#include "AppState.h"
#include "SingleInstance.h"
#include "VersionStore.h"
#include "VisibleText.h"

namespace {

int usage(QTextStream& err, const QString& text) {
    err << "usage: quillmar-companion " << text << "\n" << Qt::flush;
    return 2;
}

VersionStore store() {
    return VersionStore(VersionStore::defaultDirectory(), VersionStore::defaultBudget());
}

} // namespace

using VisibleText::oneLine;

int HistoryCommands::history(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (!arguments.isEmpty()) {
        return usage(err, QStringLiteral("history"));
    }
    const QList<VersionRecord> records = store().list();
    if (records.isEmpty()) {
        out << "No agent writes to undo.\n" << Qt::flush;
        return 0;
    }
    for (const VersionRecord& record : records) {
        QString what =
            record.created ? QStringLiteral("new file") : VersionStore::describeSize(record.size);
        if (!record.after) {
            what += QStringLiteral(" (the write did not finish)");
        }
        out << record.id << "\t"
            << record.time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) << "\t"
            << oneLine(record.agentPath) << "\t" << what << "\n";
    }
    out << Qt::flush;
    return 0;
}

int HistoryCommands::restore(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    if (arguments.size() != 1) {
        return usage(err, QStringLiteral("restore ID"));
    }
    AppState::setBridgeEnabled(false);
    // The user's own action: read-only folders may be written back too.
    QList<SharedFolder> folders = AppState::shared().folders();
    for (SharedFolder& folder : folders) {
        folder.readOnly = false;
    }
    VersionStore versions = store();
    const VersionStore::Restored restored =
        versions.restore(arguments.front(), AccessPolicy(folders, AppIdentity::ownFiles()));
    if (!restored.ok) {
        err << "quillmar-companion: " << oneLine(restored.message) << "\n" << Qt::flush;
        return 1;
    }
    SingleInstance::ask(SingleInstance::defaultDirectory(),
                        QByteArrayLiteral("restored ") + arguments.front().toUtf8());
    out << oneLine(restored.message) << "\n" << Qt::flush;
    return 0;
}
