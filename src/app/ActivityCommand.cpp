#include "ActivityCommand.h"

#include "ActivityEntry.h"
#include "SingleInstance.h"

#include <QJsonArray>
#include <QJsonObject>

ActivityCommand::ActivityCommand()
    : Command(QStringLiteral("activity"),
              QStringLiteral("the running companion's recent agent calls, newest first")) {}

int ActivityCommand::execute(const QCommandLineParser&, QTextStream& out, QTextStream& err) const {
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
