#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

// Converts file names between the bytes the file system stores and QString. QFile::decodeName
// drops a U+FEFF at the start of a name, which would make such a file show up under a name
// that does not exist (or that belongs to another file); this keeps it.
namespace FileNameCodec {

QString decode(QByteArrayView name);
QByteArray encode(const QString& name);

} // namespace FileNameCodec
