#include "ActivityLog.h"

ActivityLog::ActivityLog(qsizetype capacity, QObject* parent)
    : QObject(parent), m_capacity(std::max<qsizetype>(1, capacity)) {}

void ActivityLog::append(ActivityEntry entry) {
    const bool full = size() >= m_capacity;
    if (full) {
        m_entries.pop_front();
    }
    m_entries.push_back(std::move(entry));
    emit appended(full);
}

void ActivityLog::markRestored(const QString& versionId) {
    if (versionId.isEmpty()) {
        return;
    }
    for (qsizetype i = 0; i < size(); ++i) {
        ActivityEntry& entry = m_entries[std::size_t(size() - 1 - i)];
        if (entry.versionId == versionId && !entry.restored) {
            entry.restored = true;
            emit entryChanged(i);
        }
    }
}

const ActivityEntry& ActivityLog::at(qsizetype newestFirst) const {
    return m_entries[std::size_t(size() - 1 - newestFirst)];
}

QList<ActivityEntry> ActivityLog::newest(qsizetype count) const {
    const qsizetype n = count < 0 ? size() : std::min(count, size());
    QList<ActivityEntry> list;
    list.reserve(n);
    for (qsizetype i = 0; i < n; ++i) {
        list.append(at(i));
    }
    return list;
}
