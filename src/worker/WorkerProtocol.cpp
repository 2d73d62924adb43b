#include "WorkerProtocol.h"

#include <QtEndian>

namespace WorkerProtocol {

namespace {

bool knownKind(quint8 kind) {
    return kind >= quint8(Kind::Setup) && kind <= quint8(lastKind);
}

} // namespace

QByteArray encode(Kind kind, QByteArrayView payload) {
    QByteArray frame(headerSize + payload.size(), Qt::Uninitialized);
    qToBigEndian<quint32>(quint32(payload.size() + 1), frame.data());
    frame[4] = char(kind);
    std::copy(payload.begin(), payload.end(), frame.begin() + headerSize);
    return frame;
}

qsizetype announcedLength(QByteArrayView header) {
    if (header.size() < headerSize) {
        return -1;
    }
    const quint32 length = qFromBigEndian<quint32>(header.data());
    if (length < 1 || qsizetype(length) - 1 > largestPayload || !knownKind(quint8(header[4]))) {
        return -1;
    }
    return qsizetype(length) - 1;
}

std::optional<Frame> take(QByteArray& buffer, bool& malformed) {
    malformed = false;
    if (buffer.size() < headerSize) {
        return std::nullopt;
    }
    const qsizetype length = announcedLength(buffer);
    if (length < 0) {
        malformed = true;
        return std::nullopt;
    }
    if (buffer.size() < headerSize + length) {
        return std::nullopt;
    }
    Frame frame{Kind(quint8(buffer[4])), buffer.mid(headerSize, length)};
    buffer.remove(0, headerSize + length);
    return frame;
}

} // namespace WorkerProtocol
