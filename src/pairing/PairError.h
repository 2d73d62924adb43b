#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// Why a pairing claim failed, with the text the user sees as it stands.
class PairError : public std::exception {
public:
    enum class Kind { Network, InvalidCode };

    static PairError network(QString message);
    static PairError invalidCode();

    Kind kind() const { return m_kind; }
    // The network case's message; empty for an invalid code.
    const QString& message() const { return m_message; }
    // The finished user-facing text.
    QString description() const;
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    PairError(Kind kind, QString message);

    Kind m_kind;
    QString m_message;
    QByteArray m_utf8;
};
