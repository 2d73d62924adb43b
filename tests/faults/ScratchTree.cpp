#include "ScratchTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

QString scratchTemplate() {
    const QFileInfo shm(QStringLiteral("/dev/shm"));
    const QString base = shm.isDir() && shm.isWritable() ? shm.filePath() : QDir::tempPath();
    return base + QStringLiteral("/quillmar-faults-XXXXXX");
}

} // namespace

ScratchTree::ScratchTree() : m_dir(scratchTemplate()) {}

QString ScratchTree::path(const QString& relative) const {
    return relative.isEmpty() ? m_dir.path() : m_dir.filePath(relative);
}

bool ScratchTree::file(const QString& relative, const QByteArray& bytes) const {
    const QString full = path(relative);
    const QString parent = QFileInfo(full).path();
    if (!QFileInfo::exists(parent) && !QDir().mkpath(parent)) {
        return false;
    }
    QFile file(full);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
