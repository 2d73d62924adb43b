#pragma once

#include "FileLocation.h"
#include "SharedFolder.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The one rule for what an agent may touch: a file is reachable only when its real location,
// every symbolic link resolved, lies inside one of the shared folders, and not among the
// companion's own files. Every tool goes through it for every path, whether or not the kernel
// also confines the process.
class AccessPolicy {
public:
    enum class Purpose { Read, Write };

    // `ownFiles`: the companion's settings, data and runtime files and folders; refused even
    // inside a shared folder, and left out of listings and searches.
    AccessPolicy(QList<SharedFolder> folders, const QStringList& ownFiles);

    const QList<SharedFolder>& folders() const { return m_folders; }

    // Follows `item` (an absolute, standardised path from PathResolver) link by link without
    // letting the system follow any, and checks where it ends. Throws ToolError when that is
    // outside the shared folders or among the companion's own files (for a write: where the
    // file would be created). Anything else (missing, a loop, too long) is left in the
    // location's `error` for the tool to report as it always has.
    FileLocation locate(const QString& item, Purpose purpose) const;

    // Whether the entry `name` of the real directory `directory` is one of the companion's own.
    bool hides(QByteArrayView directory, QByteArrayView name) const;
    // Whether some own file lies directly in `directory` (most directories need no check).
    bool hidesIn(QByteArrayView directory) const;
    // Whether some own file lies anywhere below the real folder `directory`.
    bool hasOwnFilesBelow(QByteArrayView directory) const;
    // Whether a real path is, or is inside, one of the companion's own files.
    bool isOwn(QByteArrayView realPath) const;

    // Checks where an open descriptor is now (the kernel's name for it): a folder moved away
    // after it was checked must not take an access with it. Throws ToolError.
    void confirm(int fd) const;
    // The same for the entry `name` about to be made in the open directory `directory`, checked
    // where the directory is now, just before it is made.
    void confirmNew(int directory, QByteArrayView name) const;

    // The real path of the shared folder, links resolved; empty when there is no such folder.
    QByteArray realRoot(const SharedFolder& folder) const;
    // The innermost shared folder whose real place holds `realPath`, or nothing.
    const SharedFolder* folderAt(QByteArrayView realPath) const;
    // A real path in the agents' form ("Photos/2024/a.jpg"), or nothing when it is in no folder.
    std::optional<QString> agentPath(const QByteArray& realPath) const;

    static QString outsideMessage();
    static QString ownFilesMessage();

    // `path` with links resolved as far as it exists, the rest appended as it stands.
    static QByteArray realOrLexical(const QString& path);

private:
    struct Root {
        QByteArray realPath;
        qsizetype folderIndex;
    };

    // Index into m_roots of the innermost root holding `realPath`, or -1.
    qsizetype rootOf(QByteArrayView realPath) const;
    void confirmPlace(const QByteArray& place) const;
    void check(FileLocation& location, Purpose purpose, bool followedLinks) const;

    QList<SharedFolder> m_folders;
    QList<Root> m_roots;
    QList<QByteArray> m_own;
    QList<QByteArray> m_ownParents;
};
