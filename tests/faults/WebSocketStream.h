#pragma once

#include <QByteArray>
#include <QList>

// One direction of a bridge connection as the tap sees it pass: an HTTP head, then (for a
// request always, for an answer only after "101") WebSocket frames, put back together into
// messages. Reads only; the bytes travel on unchanged.
class WebSocketStream {
public:
    enum class Side { Request, Answer };

    struct Message {
        int opcode = 0; // 1 text, 2 binary, 8 close, 9 ping, 10 pong
        QByteArray payload;
    };

    explicit WebSocketStream(Side side) : m_side(side) {}

    void feed(const QByteArray& bytes);

    bool headComplete() const { return m_headDone; }
    // The HTTP head, without the blank line that ends it.
    const QByteArray& head() const { return m_head; }
    // The HTTP status of an answer's head, 0 until it is complete or when it has none.
    int status() const { return m_status; }
    // Whole messages seen since the last call, in order.
    QList<Message> takeMessages();
    // A frame that breaks the protocol was seen; nothing after it is read.
    bool broken() const { return m_broken; }
    // Frames flow and none is half seen: a frame of another sender may go in here.
    bool betweenFrames() const {
        return m_headDone && m_framesFollow && !m_broken && m_offset == m_buffer.size();
    }

private:
    void readHead();
    void readFrames();

    Side m_side;
    QByteArray m_buffer;
    qsizetype m_offset = 0;
    QByteArray m_head;
    bool m_headDone = false;
    bool m_framesFollow = false;
    int m_status = 0;
    bool m_broken = false;
    // The message being put together from a first frame and its continuations.
    int m_openOpcode = 0;
    QByteArray m_openPayload;
    QList<Message> m_messages;
};
