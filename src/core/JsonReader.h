#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QString>

// Parses JSON text without losing characters. QJsonDocument::fromJson keeps strings as UTF-8
// and drops a U+FEFF at the start of any string when it turns one into a QString, so the key
// or value "\u{FEFF}a.txt" would come back as "a.txt". Escaping those characters first keeps
// them: an escaped string is stored as UTF-16 and read back unchanged.
namespace JsonReader {

QJsonDocument parse(const QByteArray& utf8, QJsonParseError* error = nullptr);
QJsonDocument parse(const QString& text, QJsonParseError* error = nullptr);

} // namespace JsonReader
