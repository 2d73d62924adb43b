#include "ActivityWording.h"

#include "VisibleText.h"

#include <QCoreApplication>

namespace {

QString tr(const char* text) {
    return QCoreApplication::translate("ActivityWording", text);
}

} // namespace

QString ActivityWording::toolLabel(const ActivityEntry& entry) {
    const bool done = entry.outcome == ActivityEntry::Outcome::Done;
    if (entry.tool == u"local_read_file") {
        return tr("Read");
    }
    if (entry.tool == u"local_list_files") {
        return done ? tr("Listed") : tr("List");
    }
    if (entry.tool == u"local_search_files") {
        return done ? tr("Searched") : tr("Search");
    }
    if (entry.tool == u"local_write_file") {
        return done ? tr("Wrote") : tr("Write");
    }
    return entry.tool;
}

QString ActivityWording::timeText(const ActivityEntry& entry) {
    return entry.time.toLocalTime().toString(QStringLiteral("HH:mm:ss"));
}

QString ActivityWording::shortOutcome(const ActivityEntry& entry) {
    switch (entry.outcome) {
    case ActivityEntry::Outcome::Declined:
        return tr("declined");
    case ActivityEntry::Outcome::Failed:
        return tr("failed");
    case ActivityEntry::Outcome::Done:
        break;
    }
    const QString amount = entry.amountText();
    return amount.isEmpty() ? tr("done") : amount;
}

QString ActivityWording::menuLine(const ActivityEntry& entry, qsizetype subjectLimit) {
    // What the agent chose is shown, never obeyed.
    const QString subject =
        entry.subject.isEmpty() ? QStringLiteral("-") : VisibleText::oneLine(entry.subject);
    QString line = timeText(entry) + QStringLiteral("  ") + toolLabel(entry) +
                   QStringLiteral("  ") + elideMiddle(subject, subjectLimit) +
                   QStringLiteral("  ") + shortOutcome(entry);
    if (entry.restored) {
        line += QStringLiteral(" (") + tr("restored") + u')';
    }
    return line;
}

QString ActivityWording::elideMiddle(const QString& text, qsizetype limit) {
    if (limit < 3 || text.size() <= limit) {
        return text;
    }
    const qsizetype kept = limit - 1;
    // The end of a path (the file's name) says more than its start: it keeps the larger part.
    const qsizetype head = kept * 2 / 5;
    const qsizetype tail = kept - head;
    QString left = text.left(head);
    QString right = text.right(tail);
    // Never split a surrogate pair.
    if (!left.isEmpty() && left.back().isHighSurrogate()) {
        left.chop(1);
    }
    if (!right.isEmpty() && right.front().isLowSurrogate()) {
        right.remove(0, 1);
    }
    return left + QChar(0x2026) + right;
}
