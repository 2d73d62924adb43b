#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// Every entry under a directory, links not followed: its kind, size and modification time (to
// the nanosecond). Two snapshots of the same tree compare equal when nothing in it was created,
// removed, resized or written to in between.
class TreeSnapshot {
public:
    // `leaveOut`: top-level entries of `root` that are not looked at, nor anything below them.
    static TreeSnapshot of(const QString& root, const QStringList& leaveOut = {});

    bool operator==(const TreeSnapshot& other) const { return m_entries == other.m_entries; }
    qsizetype size() const { return m_entries.size(); }
    // The entries that differ from `other`, one per line, for a failed check's message.
    QString differences(const TreeSnapshot& other) const;

private:
    // Relative path -> "kind size mtime".
    QMap<QString, QString> m_entries;
};
