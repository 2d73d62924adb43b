#include "HistoryCommand.h"

#include "VersionStore.h"
#include "VisibleText.h"

HistoryCommand::HistoryCommand()
    : Command(QStringLiteral("history"),
              QStringLiteral("agent writes that can be undone: ID, time, path, size")) {}

int HistoryCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream&) const {
    const QList<VersionRecord> records =
        VersionStore(VersionStore::defaultDirectory(), VersionStore::defaultBudget()).list();
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
            << VisibleText::oneLine(record.agentPath) << "\t" << what << "\n";
    }
    out << Qt::flush;
    return 0;
}
