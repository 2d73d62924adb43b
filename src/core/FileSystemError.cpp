#include "FileSystemError.h"

#include <cstring>

FileSystemError::FileSystemError(int errorNumber, const QString& action, const QString& agentPath)
    : FileSystemError(reasonFor(errorNumber), action, agentPath) {
    m_errorNumber = errorNumber;
}

FileSystemError::FileSystemError(const QString& reason, const QString& action,
                                 const QString& agentPath)
    : CompanionError(QStringLiteral("Could not %1 '%2': %3.").arg(action, agentPath, reason)) {}

QString FileSystemError::reasonFor(int errorNumber) {
    // strerror_r's GNU form returns a pointer that may or may not be the buffer.
    char buffer[256] = {};
    const char* text = strerror_r(errorNumber, buffer, sizeof buffer);
    return QString::fromLocal8Bit(text);
}
