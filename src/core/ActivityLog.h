#pragma once

#include "ActivityEntry.h"

#include <QList>
#include <QObject>

#include <deque>

// The agents' most recent calls, in memory only (nothing of it is written anywhere), oldest
// dropped once there are `capacity` of them.
class ActivityLog : public QObject {
    Q_OBJECT

public:
    static constexpr qsizetype defaultCapacity = 500;

    explicit ActivityLog(qsizetype capacity = defaultCapacity, QObject* parent = nullptr);

    void append(ActivityEntry entry);
    // Marks the write whose previous version `versionId` was put back.
    void markRestored(const QString& versionId);

    qsizetype size() const { return qsizetype(m_entries.size()); }
    // 0 is the newest.
    const ActivityEntry& at(qsizetype newestFirst) const;
    // The newest `count` entries (all when count < 0), newest first.
    QList<ActivityEntry> newest(qsizetype count = -1) const;

signals:
    // A new entry is at the front (index 0); when the log was full the oldest has gone.
    void appended(bool droppedOldest);
    // The entry at `index` (newest first) changed.
    void entryChanged(qsizetype index);

private:
    qsizetype m_capacity;
    // Oldest first, so that adding is at the back.
    std::deque<ActivityEntry> m_entries;
};
