#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QStringView>
#include <QtGlobal>

// Writes JSON text byte for byte as QJsonDocument::toJson(QJsonDocument::Compact) writes the same
// values, for answers too big to build as QJsonObject first. Callers write keys in the order
// QJsonObject keeps them. Each write makes room for its worst case first and then fills it
// through a plain pointer: QByteArray::append per piece costs more than the JSON itself.
class CompactJson {
public:
    explicit CompactJson(qsizetype expectedSize = 0);

    // Punctuation, keys and other text that needs no escaping.
    void raw(QByteArrayView text);
    // A string value: quotes, escapes where Qt escapes, UTF-8 for the rest; a lone surrogate
    // becomes \uXXXX.
    void string(QStringView text);
    // The same for text known to be ASCII, without converting it to UTF-16 first.
    void asciiString(QByteArrayView ascii);
    // An integer value (QJsonValue of type Integer).
    void integer(qint64 value);

    QByteArray take();

private:
    char* room(qsizetype bytes);

    QByteArray m_out;
    qsizetype m_size = 0;
};
