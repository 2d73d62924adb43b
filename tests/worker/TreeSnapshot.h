#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// Everything below a folder as it lies on disk, links not followed: each entry's type, mode,
// size, times, link target and a hash of its bytes. Two snapshots differ when anything was
// created, removed, written or touched in between, even if it was put back afterwards (the
// folder's own times change).
class TreeSnapshot {
public:
    // `leaveOut`: absolute paths below `root` whose entries and subtrees are not recorded.
    static TreeSnapshot take(const QString& root, const QStringList& leaveOut = {});
    // Each of `places` and everything below it, recorded by absolute path; a place that does
    // not exist is recorded as such, so that its appearing is a change too.
    static TreeSnapshot takeEach(const QStringList& places);

    // One line for each entry added, removed or changed since `earlier`; empty when none.
    QStringList changesSince(const TreeSnapshot& earlier) const;
    qsizetype size() const { return m_entries.size(); }

private:
    void record(const QByteArray& path, const QString& relative, const QStringList& leaveOut);

    // Path below the root ("" for the root itself), or absolute path, to what was found there.
    QMap<QString, QString> m_entries;
};
