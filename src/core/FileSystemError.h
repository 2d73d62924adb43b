#pragma once

#include "CompanionError.h"

// A failure of an operating-system file operation, described for a person: what was being
// done, to which agent path, and the system's own reason.
class FileSystemError : public CompanionError {
public:
    FileSystemError(int errorNumber, const QString& action, const QString& agentPath);
    FileSystemError(const QString& reason, const QString& action, const QString& agentPath);

    int errorNumber() const { return m_errorNumber; }

    static QString reasonFor(int errorNumber);

private:
    int m_errorNumber = 0;
};
