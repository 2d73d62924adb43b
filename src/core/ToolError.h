#pragma once

#include <QString>

#include <exception>

// A failure a file tool detected itself. `message` is the complete text the agent receives.
class ToolError : public std::exception {
public:
    explicit ToolError(QString message);

    const QString& message() const { return m_message; }
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_message;
    QByteArray m_utf8;
};
