#include "WebSocketStream.h"

#include <utility>

namespace {

// Frames larger than this are not expected on the bridge; such a length means the stream is
// not what it claims to be.
constexpr quint64 largestFrame = quint64(1) << 31;

} // namespace

void WebSocketStream::feed(const QByteArray& bytes) {
    if (m_broken) {
        return;
    }
    m_buffer.append(bytes);
    if (!m_headDone) {
        readHead();
    }
    if (m_headDone && m_framesFollow) {
        readFrames();
    } else if (m_headDone) {
        m_buffer.clear(); // a body of a refusal: not looked into
        m_offset = 0;
    }
}

QList<WebSocketStream::Message> WebSocketStream::takeMessages() {
    return std::exchange(m_messages, {});
}

void WebSocketStream::readHead() {
    const qsizetype end = m_buffer.indexOf("\r\n\r\n");
    if (end < 0) {
        return;
    }
    m_headDone = true;
    m_head = m_buffer.left(end);
    const QByteArray& head = m_head;
    m_offset = end + 4;
    if (m_side == Side::Request) {
        m_framesFollow = true;
        return;
    }
    // "HTTP/1.1 101 Switching Protocols"
    const QList<QByteArray> statusLine = head.left(head.indexOf("\r\n")).split(' ');
    m_status = statusLine.size() >= 2 ? statusLine[1].toInt() : 0;
    m_framesFollow = m_status == 101;
}

void WebSocketStream::readFrames() {
    while (!m_broken) {
        const qsizetype available = m_buffer.size() - m_offset;
        if (available < 2) {
            break;
        }
        const auto* data = reinterpret_cast<const unsigned char*>(m_buffer.constData() + m_offset);
        const bool final = (data[0] & 0x80) != 0;
        const int opcode = data[0] & 0x0f;
        const bool masked = (data[1] & 0x80) != 0;
        quint64 length = data[1] & 0x7f;
        qsizetype at = 2;
        if (length == 126) {
            if (available < 4) {
                break;
            }
            length = (quint64(data[2]) << 8) | data[3];
            at = 4;
        } else if (length == 127) {
            if (available < 10) {
                break;
            }
            length = 0;
            for (int i = 2; i < 10; ++i) {
                length = (length << 8) | data[i];
            }
            at = 10;
        }
        if (length > largestFrame) {
            m_broken = true;
            break;
        }
        unsigned char mask[4] = {0, 0, 0, 0};
        if (masked) {
            if (available < at + 4) {
                break;
            }
            for (int i = 0; i < 4; ++i) {
                mask[i] = data[at + i];
            }
            at += 4;
        }
        if (available < at + qsizetype(length)) {
            break;
        }
        QByteArray payload(reinterpret_cast<const char*>(data + at), qsizetype(length));
        if (masked) {
            for (qsizetype i = 0; i < payload.size(); ++i) {
                payload[i] = char(payload[i] ^ char(mask[i % 4]));
            }
        }
        m_offset += at + qsizetype(length);

        if (opcode >= 8) {
            m_messages.append(Message{opcode, payload}); // control frames stand alone
        } else if (opcode != 0) {
            m_openOpcode = opcode;
            m_openPayload = payload;
        } else if (m_openOpcode != 0) {
            m_openPayload.append(payload);
        } else {
            m_broken = true; // a continuation of nothing
            break;
        }
        if (opcode < 8 && final) {
            m_messages.append(Message{m_openOpcode, std::exchange(m_openPayload, {})});
            m_openOpcode = 0;
        }
    }
    // Drop what has been read once it is most of the buffer, not after every frame.
    if (m_offset > 0 && m_offset >= m_buffer.size() / 2) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
}
