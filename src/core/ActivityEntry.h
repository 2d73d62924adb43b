#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include <optional>

// One tool call an agent made, as the user is shown it: when, what, on which path or query,
// and how it ended.
struct ActivityEntry {
    enum class Outcome { Done, Failed, Declined };

    QDateTime time;
    // Who asked: empty for the service's agents, else for example "Local agent: NAME".
    QString agent;
    QString tool;
    // The path the agent named, or its search query.
    QString subject;
    Outcome outcome = Outcome::Done;
    // The error text the agent was given, when the call failed.
    QString error;
    // Bytes read or written; -1 when the call moves no file contents.
    qint64 bytes = -1;
    // Entries listed or found; -1 for reads and writes.
    qint64 items = -1;
    // The kept version a write can be undone with; empty when there is none.
    QString versionId;
    // About the previous version of a write: why it was not kept, or that the file was new.
    QString versionNote;
    // The version has been put back since.
    bool restored = false;

    // "done", "declined" or the error text.
    QString outcomeText() const;
    // "read 1.2 KiB", "wrote 12 B", "3 items"; empty when there is nothing to say.
    QString amountText() const;
    // One line for a terminal or a menu: "14:03:07  local_read_file  Docs/a.txt  done, read 1 KiB".
    QString line() const;

    // At most 1,000 characters of `text`, an ellipsis after what was cut: agents choose paths
    // and errors quote them, and the log must stay small whatever they send.
    static QString shortened(const QString& text);

    QJsonObject toJson() const;
    static std::optional<ActivityEntry> fromJson(const QJsonObject& object);
};
