#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// A 200 answer to a pairing claim whose body is not the expected record. Deliberately not a
// PairError: the service answered, but with something this client cannot read.
class ClaimDecodeError : public std::exception {
public:
    explicit ClaimDecodeError(QString description);

    // The finished user-facing text.
    const QString& description() const { return m_description; }
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QByteArray m_utf8;
};
