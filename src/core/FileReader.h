#pragma once

#include "AccessPolicy.h"

#include <QJsonObject>
#include <QList>
#include <QString>

// local_read_file: the first characters (grapheme clusters) of a file's text.
class FileReader {
public:
    static constexpr qsizetype characterLimit = 100000;

    // Throws ToolError, or FileSystemError when the file cannot be opened or read.
    static QJsonObject read(const QString& path, const AccessPolicy& policy);

    struct Text {
        QString content;
        bool truncated = false;
    };
    // Reads from an open descriptor only as far as needed to know the first `limit` characters
    // and whether more follow; the result equals decoding the whole stream and cutting it.
    // Returns the errno of a failed read, or 0.
    static int readText(int fd, qsizetype limit, Text& text);
};
