#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// A failure whose text is meant for a person as it stands; what() carries the same text in
// UTF-8, so a caller may simply catch std::exception.
class CompanionError : public std::exception {
public:
    explicit CompanionError(QString message);

    // The finished user-facing text.
    const QString& message() const { return m_message; }
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_message;
    QByteArray m_utf8;
};
