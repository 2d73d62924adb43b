#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A throwaway tree of many small files, in memory (/dev/shm) where the system has it: removing
// thousands of entries from a busy disk can take longer than the test itself.
class ScratchTree {
public:
    ScratchTree();

    bool isValid() const { return m_dir.isValid(); }
    QString path(const QString& relative = QString()) const;
    // Creates a file and its missing parent directories.
    bool file(const QString& relative, const QByteArray& bytes) const;

private:
    QTemporaryDir m_dir;
};
