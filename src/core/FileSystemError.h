#pragma once

#include <QString>

#include <exception>

// A failure of an operating-system file operation, described for a person: what was being
// done, to which agent path, and the system's own reason.
class FileSystemError : public std::exception {
public:
    FileSystemError(int errorNumber, const QString& action, const QString& agentPath);
    FileSystemError(const QString& reason, const QString& action, const QString& agentPath);

    const QString& description() const { return m_description; }
    int errorNumber() const { return m_errorNumber; }
    const char* what() const noexcept override { return m_utf8.constData(); }

    static QString reasonFor(int errorNumber);

private:
    int m_errorNumber = 0;
    QString m_description;
    QByteArray m_utf8;
};
