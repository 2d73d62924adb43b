#include "JsonReader.h"

namespace {

constexpr char byteOrderMark[] = "\xef\xbb\xbf";
constexpr qsizetype markLength = 3;

} // namespace

QJsonDocument JsonReader::parse(const QByteArray& utf8, QJsonParseError* error) {
    // A mark at the very start is an encoding signature, accepted and skipped as before.
    const qsizetype start = utf8.startsWith(byteOrderMark) ? markLength : 0;
    qsizetype next = utf8.indexOf(byteOrderMark, start);
    if (next < 0) {
        return QJsonDocument::fromJson(utf8, error);
    }
    QByteArray escaped;
    escaped.reserve(utf8.size() + 16);
    escaped.append(utf8.constData(), start);
    qsizetype done = start;
    while (next >= 0) {
        escaped.append(utf8.constData() + done, next - done);
        // After a backslash the mark would be an escape of its own, which JSON has not: keep
        // it raw so that the text stays as invalid as it was.
        if (next > 0 && utf8.at(next - 1) == '\\') {
            escaped.append(byteOrderMark, markLength);
        } else {
            escaped.append("\\ufeff");
        }
        done = next + markLength;
        next = utf8.indexOf(byteOrderMark, done);
    }
    escaped.append(utf8.constData() + done, utf8.size() - done);
    return QJsonDocument::fromJson(escaped, error);
}

QJsonDocument JsonReader::parse(const QString& text, QJsonParseError* error) {
    return parse(text.toUtf8(), error);
}
