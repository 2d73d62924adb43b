#include "ActivityEntry.h"

#include "VersionStore.h"
#include "VisibleText.h"

// Safe on one line of a terminal or a menu, whatever the agent put in it.
using VisibleText::oneLine;

QString ActivityEntry::outcomeText() const {
    switch (outcome) {
    case Outcome::Done:
        return QStringLiteral("done");
    case Outcome::Declined:
        return QStringLiteral("declined");
    case Outcome::Failed:
        break;
    }
    return error;
}

QString ActivityEntry::amountText() const {
    if (outcome != Outcome::Done) {
        return QString();
    }
    if (bytes >= 0) {
        const QString size = VersionStore::describeSize(bytes);
        return tool == u"local_write_file" ? QStringLiteral("wrote ") + size
                                           : QStringLiteral("read ") + size;
    }
    if (items >= 0) {
        return items == 1 ? QStringLiteral("1 item") : QStringLiteral("%1 items").arg(items);
    }
    return QString();
}

QString ActivityEntry::line() const {
    QString text = time.toLocalTime().toString(QStringLiteral("HH:mm:ss")) + QStringLiteral("  ");
    if (!agent.isEmpty()) {
        text += oneLine(agent) + QStringLiteral("  ");
    }
    text += tool + QStringLiteral("  ") +
            (subject.isEmpty() ? QStringLiteral("-") : oneLine(subject)) + QStringLiteral("  ") +
            oneLine(outcomeText());
    if (const QString amount = amountText(); !amount.isEmpty()) {
        text += QStringLiteral(", ") + amount;
    }
    if (!versionId.isEmpty()) {
        if (restored) {
            text += QStringLiteral(" (restored)");
        } else if (!versionNote.isEmpty()) {
            text += QStringLiteral(" (%1, version %2)").arg(oneLine(versionNote), versionId);
        } else {
            text += QStringLiteral(" (version %1 kept)").arg(versionId);
        }
    } else if (!versionNote.isEmpty()) {
        text += QStringLiteral(" (") + oneLine(versionNote) + u')';
    }
    return text;
}

QJsonObject ActivityEntry::toJson() const {
    QJsonObject object{{QStringLiteral("time"), time.toUTC().toString(Qt::ISODateWithMs)},
                       {QStringLiteral("tool"), tool},
                       {QStringLiteral("subject"), subject},
                       {QStringLiteral("outcome"), outcome == Outcome::Done       ? u"done"_qs
                                                   : outcome == Outcome::Declined ? u"declined"_qs
                                                                                  : u"failed"_qs},
                       {QStringLiteral("bytes"), bytes},
                       {QStringLiteral("items"), items},
                       {QStringLiteral("restored"), restored}};
    const auto insertText = [&](const char16_t* key, const QString& value) {
        if (!value.isEmpty()) {
            object.insert(QString::fromUtf16(key), value);
        }
    };
    insertText(u"agent", agent);
    insertText(u"error", error);
    insertText(u"version", versionId);
    insertText(u"version_note", versionNote);
    return object;
}

QString ActivityEntry::shortened(const QString& text) {
    constexpr qsizetype longest = 1000;
    if (text.size() <= longest) {
        return text;
    }
    qsizetype cut = longest;
    if (text[cut - 1].isHighSurrogate()) {
        --cut;
    }
    return text.left(cut) + u'\u2026';
}

std::optional<ActivityEntry> ActivityEntry::fromJson(const QJsonObject& object) {
    ActivityEntry entry;
    entry.time =
        QDateTime::fromString(object.value(QStringLiteral("time")).toString(), Qt::ISODateWithMs);
    entry.tool = object.value(QStringLiteral("tool")).toString();
    if (!entry.time.isValid() || entry.tool.isEmpty()) {
        return std::nullopt;
    }
    entry.agent = object.value(QStringLiteral("agent")).toString();
    entry.subject = object.value(QStringLiteral("subject")).toString();
    const QString outcome = object.value(QStringLiteral("outcome")).toString();
    entry.outcome = outcome == u"done"       ? Outcome::Done
                    : outcome == u"declined" ? Outcome::Declined
                                             : Outcome::Failed;
    entry.error = object.value(QStringLiteral("error")).toString();
    entry.bytes = object.value(QStringLiteral("bytes")).toInteger(-1);
    entry.items = object.value(QStringLiteral("items")).toInteger(-1);
    entry.versionId = object.value(QStringLiteral("version")).toString();
    entry.versionNote = object.value(QStringLiteral("version_note")).toString();
    entry.restored = object.value(QStringLiteral("restored")).toBool();
    return entry;
}
