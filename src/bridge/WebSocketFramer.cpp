#include "WebSocketFramer.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace {

bool isControl(WebSocketFramer::Opcode opcode) {
    return quint8(opcode) & 0x8;
}

bool isKnown(quint8 opcode) {
    return opcode <= 0x2 || (opcode >= 0x8 && opcode <= 0xA);
}

// A message in several frames grows by doubling up to this size, then gets the whole ceiling.
constexpr qsizetype growthLimit = 1024 * 1024;
// A ceiling larger than this is never reserved in advance.
constexpr qsizetype largestReservation = qsizetype(256) * 1024 * 1024;

// Bytes of a header whose second byte is `second`.
qsizetype headerLength(quint8 second) {
    const quint8 length = second & 0x7F;
    const qsizetype extended = length == 126 ? 2 : length == 127 ? 8 : 0;
    return 2 + extended + ((second & 0x80) ? 4 : 0);
}

} // namespace

WebSocketFramer::WebSocketFramer(qsizetype largestMessage) : m_largestMessage(largestMessage) {}

bool WebSocketFramer::validCloseCode(quint16 code) {
    // 1004-1006 and 1015 are reserved for reporting and never sent; 1016-2999 are unassigned.
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
           (code >= 3000 && code <= 4999);
}

QByteArray WebSocketFramer::closePayload(quint16 code, const QByteArray& reason) {
    QByteArray payload(2, Qt::Uninitialized);
    qToBigEndian<quint16>(code, payload.data());
    // A reason cut inside a character would make the whole frame invalid text.
    qsizetype length = std::min<qsizetype>(reason.size(), 123);
    while (length > 0 && length < reason.size() && (quint8(reason[length]) & 0xC0) == 0x80) {
        --length;
    }
    payload.append(reason.left(length));
    return payload;
}

QByteArray WebSocketFramer::encode(Opcode opcode, QByteArrayView payload, quint32 mask) {
    const qsizetype size = payload.size();
    const qsizetype extended = size < 126 ? 0 : size <= 0xFFFF ? 2 : 8;
    QByteArray frame(2 + extended + 4 + size, Qt::Uninitialized);
    auto* out = reinterpret_cast<uchar*>(frame.data());
    out[0] = uchar(0x80 | quint8(opcode));
    if (extended == 0) {
        out[1] = uchar(0x80 | size);
    } else if (extended == 2) {
        out[1] = uchar(0x80 | 126);
        qToBigEndian<quint16>(quint16(size), out + 2);
    } else {
        out[1] = uchar(0x80 | 127);
        qToBigEndian<quint64>(quint64(size), out + 2);
    }
    uchar* key = out + 2 + extended;
    qToBigEndian<quint32>(mask, key);
    uchar* body = key + 4;
    const auto* in = reinterpret_cast<const uchar*>(payload.data());
    // Eight bytes at a time: masking is the only per-byte work of sending.
    quint64 wide;
    uchar pattern[8];
    for (int i = 0; i < 8; ++i) {
        pattern[i] = key[i % 4];
    }
    std::memcpy(&wide, pattern, 8);
    qsizetype i = 0;
    for (; i + 8 <= size; i += 8) {
        quint64 chunk;
        std::memcpy(&chunk, in + i, 8);
        chunk ^= wide;
        std::memcpy(body + i, &chunk, 8);
    }
    for (; i < size; ++i) {
        body[i] = in[i] ^ key[i % 4];
    }
    return frame;
}

void WebSocketFramer::fail(QList<Event>& events, quint16 code, const QString& problem) {
    m_failed = true;
    m_message.clear();
    m_message.squeeze();
    Event event;
    event.kind = Event::Kind::Failure;
    event.code = code;
    event.problem = problem;
    events.append(std::move(event));
}

bool WebSocketFramer::readHeader(QList<Event>& events) {
    const auto* header = reinterpret_cast<const uchar*>(m_pending.constData());
    const bool final = header[0] & 0x80;
    const quint8 opcode = header[0] & 0x0F;
    if (header[0] & 0x70) {
        fail(events, protocolError, QStringLiteral("a frame with reserved bits set"));
        return false;
    }
    if (!isKnown(opcode)) {
        fail(events, protocolError, QStringLiteral("a frame of unknown type %1").arg(opcode));
        return false;
    }
    if (header[1] & 0x80) {
        fail(events, protocolError, QStringLiteral("a masked frame from the server"));
        return false;
    }
    quint64 length = header[1] & 0x7F;
    if (length == 126) {
        length = qFromBigEndian<quint16>(header + 2);
    } else if (length == 127) {
        length = qFromBigEndian<quint64>(header + 2);
        if (length >> 63) {
            fail(events, protocolError, QStringLiteral("a frame length over 63 bits"));
            return false;
        }
    }
    const Opcode type = Opcode(opcode);
    if (isControl(type)) {
        if (!final || length > 125) {
            fail(events, protocolError, QStringLiteral("a fragmented or long control frame"));
            return false;
        }
    } else {
        if (type == Opcode::Continuation && !m_inMessage) {
            fail(events, protocolError, QStringLiteral("a continuation without a message"));
            return false;
        }
        if (type != Opcode::Continuation && m_inMessage) {
            fail(events, protocolError, QStringLiteral("a new message inside another"));
            return false;
        }
        const quint64 sofar = type == Opcode::Continuation ? quint64(m_message.size()) : 0;
        if (length > quint64(m_largestMessage) - sofar) {
            fail(events, messageTooBig,
                 QStringLiteral("a message over %1 bytes").arg(m_largestMessage));
            return false;
        }
        if (type != Opcode::Continuation) {
            m_inMessage = true;
            m_messageOpcode = type;
            m_message = QByteArray();
            m_utf8.reset();
        }
        makeRoom(sofar + qsizetype(length));
    }
    m_inFrame = true;
    m_opcode = type;
    m_final = final;
    m_remaining = length;
    m_control.clear();
    m_pending.clear();
    return true;
}

void WebSocketFramer::makeRoom(qsizetype needed) {
    if (needed <= m_message.capacity()) {
        return;
    }
    // A message in one frame is allocated once, at its announced size. One in many frames
    // grows, but each growth copies it and the allocator may keep the old copies: a large one
    // would peak at twice its size. Past a point it gets the whole ceiling at once instead,
    // whose pages take memory only as they are written.
    qsizetype room = needed;
    if (m_message.capacity() > 0) {
        room = std::max(needed, 2 * m_message.capacity());
        if (room > growthLimit && m_largestMessage <= largestReservation) {
            room = m_largestMessage;
        }
        room = std::max(std::min(room, m_largestMessage), needed);
    }
    m_message.reserve(room);
}

void WebSocketFramer::takePayload(QByteArrayView bytes) {
    if (isControl(m_opcode)) {
        m_control.append(bytes);
        return;
    }
    m_message.append(bytes);
    if (m_messageOpcode == Opcode::Text) {
        m_utf8.feed(bytes);
    }
}

void WebSocketFramer::finishFrame(QList<Event>& events) {
    m_inFrame = false;
    Event event;
    switch (m_opcode) {
    case Opcode::Ping:
    case Opcode::Pong:
        event.kind = m_opcode == Opcode::Ping ? Event::Kind::Ping : Event::Kind::Pong;
        event.payload = std::move(m_control);
        events.append(std::move(event));
        return;
    case Opcode::Close: {
        if (m_control.size() == 1) {
            fail(events, protocolError, QStringLiteral("a close frame of one byte"));
            return;
        }
        event.kind = Event::Kind::Close;
        event.code = 1005; // no status code was given
        if (m_control.size() >= 2) {
            event.code = qFromBigEndian<quint16>(m_control.constData());
            if (!validCloseCode(event.code)) {
                fail(events, protocolError, QStringLiteral("close code %1").arg(event.code));
                return;
            }
            event.payload = m_control.mid(2);
            Utf8Validator reason;
            reason.feed(event.payload);
            if (!reason.complete()) {
                fail(events, invalidText, QStringLiteral("a close reason that is not UTF-8"));
                return;
            }
        }
        // Nothing follows a close frame.
        m_failed = true;
        events.append(std::move(event));
        return;
    }
    default:
        break;
    }
    if (m_messageOpcode == Opcode::Text && !m_utf8.valid()) {
        fail(events, invalidText, QStringLiteral("a text message that is not UTF-8"));
        return;
    }
    if (!m_final) {
        return;
    }
    if (m_messageOpcode == Opcode::Text && !m_utf8.complete()) {
        fail(events, invalidText, QStringLiteral("a text message that ends inside a character"));
        return;
    }
    event.kind = m_messageOpcode == Opcode::Text ? Event::Kind::Text : Event::Kind::Binary;
    if (m_message.capacity() - m_message.size() > growthLimit) {
        m_message.squeeze(); // the unused part of a ceiling reserved in advance
    }
    event.payload = std::move(m_message);
    m_message = QByteArray();
    m_inMessage = false;
    events.append(std::move(event));
}

void WebSocketFramer::feed(QByteArrayView bytes, QList<Event>& events) {
    qsizetype at = 0;
    while (!m_failed && at < bytes.size()) {
        if (!m_inFrame) {
            // The header, possibly arriving a byte at a time.
            const qsizetype wanted = m_pending.size() < 2 ? 2 : headerLength(quint8(m_pending[1]));
            const qsizetype take = std::min(wanted - m_pending.size(), bytes.size() - at);
            m_pending.append(bytes.sliced(at, take));
            at += take;
            if (m_pending.size() < 2 || m_pending.size() < headerLength(quint8(m_pending[1]))) {
                continue;
            }
            if (readHeader(events) && m_remaining == 0) {
                finishFrame(events);
            }
            continue;
        }
        const qsizetype take =
            qsizetype(std::min<quint64>(m_remaining, quint64(bytes.size() - at)));
        takePayload(bytes.sliced(at, take));
        at += take;
        m_remaining -= quint64(take);
        // Text that can no longer be valid ends the connection at once, not at its end.
        if (!isControl(m_opcode) && m_messageOpcode == Opcode::Text && !m_utf8.valid()) {
            fail(events, invalidText, QStringLiteral("a text message that is not UTF-8"));
            return;
        }
        if (m_remaining == 0) {
            finishFrame(events);
        }
    }
}
