#include "VersionStore.h"

#include "AccessPolicy.h"
#include "AppIdentity.h"
#include "FileDescriptor.h"
#include "FileLocation.h"
#include "FileNameCodec.h"
#include "ToolError.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLocale>
#include <QLoggingCategory>
#include <QSaveFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcVersions, "quillmar.versions", QtWarningMsg)

namespace {

QString systemError(int error) {
    return QString::fromLocal8Bit(std::strerror(error));
}

// Copies from `from` (starting at its beginning, leaving its offset alone) to `to` until the end
// of `from`, or until more than `limit` bytes have come. Returns 0 or an errno; sets `copied`.
int copyFile(int from, int to, qint64 limit, qint64& copied) {
    copied = 0;
    off_t offset = 0;
    bool inKernel = true;
    while (true) {
        ssize_t n = -1;
        if (inKernel) {
            n = ::copy_file_range(from, &offset, to, nullptr, 1 << 30, 0);
            if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                          errno == EOPNOTSUPP || errno == EBADF)) {
                inKernel = false;
                continue;
            }
        } else {
            char buffer[256 * 1024];
            n = ::pread(from, buffer, sizeof buffer, offset);
            if (n > 0) {
                for (ssize_t written = 0; written < n;) {
                    const ssize_t w = ::write(to, buffer + written, std::size_t(n - written));
                    if (w < 0 && errno == EINTR) {
                        continue;
                    }
                    if (w < 0) {
                        return errno;
                    }
                    written += w;
                }
                offset += n;
            }
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return errno;
        }
        if (n == 0) {
            return 0;
        }
        copied = offset;
        if (copied > limit) {
            return EFBIG;
        }
    }
}

QByteArray nativeName(const QString& path) {
    return QFile::encodeName(path);
}

bool numericId(const QString& id) {
    bool ok = false;
    return !id.isEmpty() && id.size() <= 18 && id.toLongLong(&ok) > 0 && ok &&
           id == QString::number(id.toLongLong());
}

// A record of a write happening now to `realPath`, asked for as `agentPath`.
VersionRecord recordNow(const QString& id, const QString& agentPath, const QByteArray& realPath) {
    VersionRecord record;
    record.id = id;
    record.time = QDateTime::currentDateTimeUtc();
    record.agentPath = agentPath;
    record.realPath = realPath;
    return record;
}

} // namespace

VersionStore::VersionStore(QString directory, Budget budget)
    : m_directory(std::move(directory)), m_budget(budget) {}

VersionStore::VersionStore(QString directory) : VersionStore(std::move(directory), Budget()) {}

QString VersionStore::defaultDirectory() {
    return AppIdentity::dataDirectory() + QStringLiteral("/versions");
}

VersionStore::Budget VersionStore::defaultBudget() {
    Budget budget;
    bool ok = false;
    const qint64 bytes = qEnvironmentVariable("QUILLMAR_VERSION_BUDGET").toLongLong(&ok);
    if (ok && bytes >= 0) {
        budget.bytes = bytes;
    }
    return budget;
}

QString VersionStore::describeSize(qint64 bytes) {
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeIecFormat);
}

QString VersionStore::recordPath(const QString& id) const {
    return m_directory + u'/' + id + QStringLiteral(".json");
}

QString VersionStore::bytesPath(const QString& id) const {
    return m_directory + u'/' + id + QStringLiteral(".bytes");
}

bool VersionStore::ensureDirectory(QString& problem) const {
    if (QDir().mkpath(m_directory)) {
        // Only the user may look inside: these are copies of their files.
        if (::chmod(nativeName(m_directory).constData(), 0700) != 0) {
            const int error = errno;
            qCWarning(lcVersions) << "could not make" << m_directory
                                  << "private:" << systemError(error);
        }
        return true;
    }
    problem = QStringLiteral("the folder %1 could not be made").arg(m_directory);
    return false;
}

QString VersionStore::reserve(QString& problem) {
    if (!ensureDirectory(problem)) {
        return QString();
    }
    qint64 next = 1;
    const QStringList names = QDir(m_directory).entryList(QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        const QString id = name.section(u'.', 0, 0);
        if (numericId(id)) {
            next = std::max(next, id.toLongLong() + 1);
        }
    }
    for (int attempt = 0; attempt < 1000; ++attempt, ++next) {
        const QString id = QString::number(next);
        const int fd = ::open(nativeName(recordPath(id)).constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
            return id;
        }
        if (errno != EEXIST) {
            problem = systemError(errno);
            return QString();
        }
    }
    problem = QStringLiteral("no free id");
    return QString();
}

bool VersionStore::save(const VersionRecord& record, QString& problem) const {
    QSaveFile file(recordPath(record.id));
    if (!file.open(QIODevice::WriteOnly)) {
        problem = file.errorString();
        return false;
    }
    file.write(QJsonDocument(record.toJson()).toJson(QJsonDocument::Compact));
    if (!file.commit()) {
        problem = file.errorString();
        return false;
    }
    return true;
}

void VersionStore::remove(const QString& id) const {
    // A created file's record has no bytes beside it.
    for (const QString& path : {bytesPath(id), recordPath(id)}) {
        if (!QFile::remove(path) && QFile::exists(path)) {
            qCDebug(lcVersions) << "could not remove" << path;
        }
    }
}

VersionStore::Kept VersionStore::keep(const QString& agentPath, const QByteArray& realPath,
                                      int previous, const FileState& before) {
    if (!keepsVersions()) {
        return Kept{QString(), QStringLiteral("keeping previous versions is turned off")};
    }
    if (previous < 0) {
        return Kept{QString(), QStringLiteral("the file could not be read")};
    }
    if (before.size > m_budget.bytes) {
        return Kept{QString(), QStringLiteral("it is larger than the %1 kept for restoring")
                                   .arg(describeSize(m_budget.bytes))};
    }
    QString problem;
    const QString id = reserve(problem);
    if (id.isEmpty()) {
        qCWarning(lcVersions) << "no version kept:" << problem;
        return Kept{QString(), problem};
    }
    FileDescriptor out(::open(nativeName(bytesPath(id)).constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    qint64 copied = 0;
    int error = out.valid() ? copyFile(previous, out.get(), m_budget.bytes, copied) : errno;
    if (error == 0 && ::fdatasync(out.get()) != 0) {
        error = errno;
    }
    if (error != 0) {
        remove(id);
        if (error == EFBIG) {
            return Kept{QString(), QStringLiteral("it is larger than the %1 kept for restoring")
                                       .arg(describeSize(m_budget.bytes))};
        }
        qCWarning(lcVersions) << "no version kept:" << systemError(error);
        return Kept{QString(), systemError(error)};
    }
    VersionRecord record = recordNow(id, agentPath, realPath);
    record.size = copied;
    record.before = before;
    if (!save(record, problem)) {
        remove(id);
        qCWarning(lcVersions) << "no version kept:" << problem;
        return Kept{QString(), problem};
    }
    pruneAfterAdding(copied);
    return Kept{id, QString()};
}

VersionStore::Kept VersionStore::recordCreated(const QString& agentPath, const QByteArray& realPath,
                                               const FileState& after) {
    if (!keepsVersions()) {
        return Kept{QString(), QStringLiteral("keeping previous versions is turned off")};
    }
    QString problem;
    const QString id = reserve(problem);
    VersionRecord record = recordNow(id, agentPath, realPath);
    record.created = true;
    record.after = after;
    if (id.isEmpty() || !save(record, problem)) {
        if (!id.isEmpty()) {
            remove(id);
        }
        qCWarning(lcVersions) << "new file not recorded:" << problem;
        return Kept{QString(), problem};
    }
    pruneAfterAdding(0);
    return Kept{id, QString()};
}

void VersionStore::finish(const QString& id, const FileState& after) {
    std::optional<VersionRecord> record = find(id);
    if (!record) {
        return;
    }
    record->after = after;
    QString problem;
    if (!save(*record, problem)) {
        qCWarning(lcVersions) << "version" << id << "not completed:" << problem;
    }
}

QList<VersionRecord> VersionStore::list() const {
    QList<VersionRecord> records;
    const QStringList names =
        QDir(m_directory).entryList({QStringLiteral("*.json")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        const QString id = name.chopped(5);
        if (!numericId(id)) {
            continue;
        }
        if (std::optional<VersionRecord> record = find(id)) {
            records.append(std::move(*record));
        }
    }
    std::sort(records.begin(), records.end(), [](const VersionRecord& a, const VersionRecord& b) {
        return a.id.toLongLong() > b.id.toLongLong();
    });
    return records;
}

std::optional<VersionRecord> VersionStore::find(const QString& id) const {
    if (!numericId(id)) {
        return std::nullopt;
    }
    QFile file(recordPath(id));
    if (!file.open(QIODevice::ReadOnly) || file.size() > 1024 * 1024) {
        return std::nullopt;
    }
    std::optional<VersionRecord> record =
        VersionRecord::fromJson(QJsonDocument::fromJson(file.readAll()).object());
    if (!record || record->id != id) {
        qCDebug(lcVersions) << "unreadable record" << file.fileName();
        return std::nullopt;
    }
    return record;
}

void VersionStore::pruneAfterAdding(qint64 bytes) {
    // A full look at every record is needed only when the budget may be exceeded, and for the
    // age limit now and then; in between the running total is enough.
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (m_knownTotal && *m_knownTotal + bytes <= m_budget.bytes && m_lastFullPrune.isValid() &&
        m_lastFullPrune.secsTo(now) < 3600) {
        *m_knownTotal += bytes;
        return;
    }
    prune();
}

void VersionStore::prune() {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    m_lastFullPrune = now;
    const QDateTime oldest = now.addSecs(-qint64(m_budget.age.count()));
    QList<VersionRecord> records = list();
    qint64 total = 0;
    for (const VersionRecord& record : std::as_const(records)) {
        total += record.size;
    }
    // Oldest first.
    for (auto it = records.crbegin(); it != records.crend(); ++it) {
        if (it->time < oldest || total > m_budget.bytes) {
            remove(it->id);
            total -= it->size;
        }
    }
    m_knownTotal = total;
    // Leftovers of versions that were never completed (a reserved id, bytes without a record)
    // go once they are an hour old: by then nothing is writing them.
    const QDateTime stale = now.addSecs(-3600);
    const QFileInfoList files = QDir(m_directory).entryInfoList(QDir::Files | QDir::Hidden);
    for (const QFileInfo& info : files) {
        const QString id = info.fileName().section(u'.', 0, 0);
        if (info.lastModified().toUTC() < stale && !find(id)) {
            if (!QFile::remove(info.filePath())) {
                qCDebug(lcVersions) << "could not remove" << info.filePath();
            }
        }
    }
}

VersionStore::Restored VersionStore::restore(const QString& id, const AccessPolicy& policy) {
    const std::optional<VersionRecord> found = find(id);
    if (!found) {
        return Restored{false, QStringLiteral("There is no kept version with the id %1.").arg(id)};
    }
    const VersionRecord& record = *found;
    const QString& shown = record.agentPath;
    FileLocation location;
    try {
        location =
            policy.locate(FileNameCodec::decode(record.realPath), AccessPolicy::Purpose::Write);
    } catch (const ToolError&) {
        return Restored{
            false, QStringLiteral("%1 is no longer in a shared folder, so it was not restored.")
                       .arg(shown)};
    }
    if (location.failedForWantOfResources()) {
        return Restored{
            false,
            QStringLiteral("Could not restore %1: %2.").arg(shown, systemError(location.error))};
    }
    const bool exists = location.exists() && location.error == 0;
    const FileState now = FileState::of(location.status);
    const auto untouched = [&] {
        if (!exists || !S_ISREG(location.status.st_mode)) {
            return false;
        }
        if (record.after) {
            return now == *record.after;
        }
        // The write never reported back: the file it was working on is the one to repair.
        return record.before && now.sameFile(*record.before);
    };

    if (record.created) {
        if (!exists) {
            remove(id);
            return Restored{true, QStringLiteral("%1 was already gone.").arg(shown)};
        }
        if (!untouched()) {
            return Restored{false,
                            QStringLiteral("%1 has changed since the agent wrote it, so it was not "
                                           "removed.")
                                .arg(shown)};
        }
        try {
            policy.confirm(location.item.get());
        } catch (const ToolError&) {
            return Restored{
                false, QStringLiteral("%1 is no longer in a shared folder, so it was not removed.")
                           .arg(shown)};
        }
        if (::unlinkat(location.directory.get(), location.name.constData(), 0) != 0) {
            return Restored{
                false, QStringLiteral("Could not remove %1: %2.").arg(shown, systemError(errno))};
        }
        remove(id);
        return Restored{true,
                        QStringLiteral("Removed %1, which the agent had created.").arg(shown)};
    }

    if (!exists) {
        return Restored{false, QStringLiteral("%1 has been moved or deleted since the agent wrote "
                                              "it, so it was not restored.")
                                   .arg(shown)};
    }
    if (!untouched()) {
        return Restored{
            false,
            QStringLiteral("%1 has changed since the agent wrote it, so it was not restored.")
                .arg(shown)};
    }
    FileDescriptor kept(::open(nativeName(bytesPath(id)).constData(), O_RDONLY | O_CLOEXEC));
    if (!kept.valid()) {
        return Restored{false, QStringLiteral("Could not restore %1: the kept version can't be "
                                              "read (%2).")
                                   .arg(shown, systemError(errno))};
    }
    FileDescriptor file(::openat(location.directory.get(), location.name.constData(),
                                 O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK));
    struct stat opened {};
    if (!file.valid() || ::fstat(file.get(), &opened) != 0 ||
        !FileState::of(opened).sameFile(now)) {
        return Restored{false, QStringLiteral("Could not restore %1: %2.")
                                   .arg(shown, systemError(file.valid() ? ESTALE : errno))};
    }
    try {
        policy.confirm(file.get());
    } catch (const ToolError&) {
        return Restored{
            false, QStringLiteral("%1 is no longer in a shared folder, so it was not restored.")
                       .arg(shown)};
    }
    qint64 copied = 0;
    int error = ::ftruncate(file.get(), 0) == 0 ? 0 : errno;
    if (error == 0) {
        error = copyFile(kept.get(), file.get(), std::numeric_limits<qint64>::max(), copied);
    }
    if (error == 0 && ::fdatasync(file.get()) != 0 && errno != EINVAL) {
        error = errno;
    }
    struct stat after {};
    const bool haveAfter = ::fstat(file.get(), &after) == 0;
    if (error != 0) {
        // The record stays: the user can try again once the cause is gone.
        if (haveAfter) {
            VersionRecord unfinished = record;
            unfinished.after.reset();
            QString ignored;
            save(unfinished, ignored);
        }
        return Restored{false, QStringLiteral("Could not restore %1: %2. The kept version is "
                                              "still there; try again.")
                                   .arg(shown, systemError(error))};
    }
    // The write before this one left the file exactly as it now is again: that one can be
    // undone next.
    if (haveAfter && record.before) {
        for (VersionRecord earlier : list()) {
            if (earlier.id.toLongLong() < id.toLongLong() && earlier.realPath == record.realPath &&
                earlier.after && *earlier.after == *record.before) {
                earlier.after = FileState::of(after);
                QString ignored;
                save(earlier, ignored);
                break;
            }
        }
    }
    remove(id);
    return Restored{true,
                    QStringLiteral("Restored %1 as it was before the agent's write.").arg(shown)};
}
