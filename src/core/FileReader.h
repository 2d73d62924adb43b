#pragma once

#include "AccessPolicy.h"

#include <QJsonObject>
#include <QList>
#include <QString>

// local_read_file: the first characters (grapheme clusters) of a file's text.
namespace FileReader {

inline constexpr qsizetype characterLimit = 100000;
// A character is one of ICU's extended grapheme clusters of the whole text, except that a
// cluster of more code points than this is cut into pieces of this many (the last one
// shorter), each a character of its own: a first code point and at most 30 more, the run of
// non-starters Unicode's Stream-Safe Text Format allows. Code points, not UTF-16 units, so a
// surrogate pair is never split. No cluster of real text comes near it; without it one
// cluster, and so one read, could be as long as the file.
inline constexpr qsizetype characterCodePointLimit = 31;

// Throws ToolError, or FileSystemError when the file cannot be opened or read.
QJsonObject read(const QString& path, const AccessPolicy& policy);

struct Text {
    QString content;
    bool truncated = false;
};
// Reads from an open descriptor only as far as needed to know the first `limit` characters
// and whether more follow; the result equals decoding the whole stream and cutting it. Time
// and memory stay within about limit * characterCodePointLimit code points plus one read.
// Returns the errno of a failed read, or 0.
int readText(int fd, qsizetype limit, Text& text);

} // namespace FileReader
