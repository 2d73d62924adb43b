#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A temporary directory that tests fill with real files; removed (permissions restored) at the
// end of the test.
class TempTree {
public:
    TempTree();
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    // Absolute path of `relative` inside the tree ("" gives the tree's root).
    QString path(const QString& relative = QString()) const;
    // Creates a file (and its parent directories) with the given bytes.
    QString file(const QString& relative, const QByteArray& bytes = QByteArray()) const;
    QString dir(const QString& relative) const;
    QString symlink(const QString& relative, const QString& target) const;
    // Sets the modification time, in whole seconds since 1970 (may be negative).
    void setModified(const QString& relative, qint64 seconds, long nanoseconds = 0) const;
    void chmod(const QString& relative, unsigned mode) const;

    // What a file holds, or "<missing>" when it cannot be read (absolute paths).
    static QByteArray contents(const QString& path);
    // Replaces a file's bytes; false when it cannot be written.
    static bool overwrite(const QString& path, const QByteArray& bytes);

private:
    QTemporaryDir m_dir;
};
