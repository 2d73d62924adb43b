#pragma once

#include "FileState.h"
#include "VersionRecord.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include <chrono>
#include <optional>

class AccessPolicy;

// The previous versions of files that agents replaced, kept in the companion's own data folder
// (which agents can never reach) so that the user can put them back. Each version is a record
// (NNN.json) and the bytes it keeps (NNN.bytes); ids count up. Bounded by age and by total
// size: the oldest go first, and a file larger than the whole budget is not kept at all.
// Several processes may use the same folder: ids are taken with exclusive creation and records
// are replaced atomically.
class VersionStore {
public:
    struct Budget {
        qint64 bytes = qint64(1) << 30;
        std::chrono::seconds age = std::chrono::hours(24 * 30);
    };

    // The outcome of keeping: the new record's id, or why nothing was kept.
    struct Kept {
        QString id;
        QString problem;
    };

    struct Restored {
        bool ok = false;
        // What happened, for the user, in one sentence.
        QString message;
    };

    VersionStore(QString directory, Budget budget);
    explicit VersionStore(QString directory);

    // The versions folder inside the companion's data folder.
    static QString defaultDirectory();
    // The usual budget; QUILLMAR_VERSION_BUDGET (in bytes, 0 to keep nothing) replaces its size.
    static Budget defaultBudget();

    const QString& directory() const { return m_directory; }
    const Budget& budget() const { return m_budget; }
    bool keepsVersions() const { return m_budget.bytes > 0; }

    // Copies what `previous` reads (the file before an agent's write, in state `before`) into
    // the store, durably, before the write may go on.
    Kept keep(const QString& agentPath, const QByteArray& realPath, int previous,
              const FileState& before);
    // Records that an agent's write created a file.
    Kept recordCreated(const QString& agentPath, const QByteArray& realPath,
                       const FileState& after);
    // Notes how the write of a kept version left the file.
    void finish(const QString& id, const FileState& after);

    // Every record, newest first.
    QList<VersionRecord> list() const;
    std::optional<VersionRecord> find(const QString& id) const;

    // Puts the file back as it was before the write `id` (or removes the file that write
    // created), provided nothing has touched it since. The place is checked with `policy` as
    // any file access is. The record is gone once it has been used.
    Restored restore(const QString& id, const AccessPolicy& policy);

    // Drops records past the age limit, then the oldest until the rest fit the size budget.
    void prune();

    // "1.2 MiB", for messages.
    static QString describeSize(qint64 bytes);

private:
    QString recordPath(const QString& id) const;
    QString bytesPath(const QString& id) const;
    // Reserves a new id (its record file made empty and exclusively); empty on failure.
    QString reserve(QString& problem);
    bool save(const VersionRecord& record, QString& problem) const;
    void remove(const QString& id) const;
    bool ensureDirectory(QString& problem) const;
    void pruneAfterAdding(qint64 bytes);

    QString m_directory;
    Budget m_budget;
    // What the kept bytes add up to, as of the last full look, plus what was added since.
    std::optional<qint64> m_knownTotal;
    QDateTime m_lastFullPrune;
};
