#include "FileNameCodec.h"

#include <QFile>

namespace {

constexpr QByteArrayView byteOrderMark("\xef\xbb\xbf");

} // namespace

QString FileNameCodec::decode(QByteArrayView name) {
    if (!name.startsWith(byteOrderMark)) {
        return QFile::decodeName(QByteArray::fromRawData(name.data(), name.size()));
    }
    qsizetype marks = 0;
    while (name.startsWith(byteOrderMark)) {
        name = name.sliced(byteOrderMark.size());
        ++marks;
    }
    return QString(marks, QChar(0xfeff)) +
           QFile::decodeName(QByteArray::fromRawData(name.data(), name.size()));
}

QByteArray FileNameCodec::encode(const QString& name) {
    return QFile::encodeName(name);
}
