#pragma once

#include "Utf8Validator.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QtGlobal>

// The frame layer of a WebSocket client (RFC 6455), without sockets: bytes from the server go
// in, whole messages and control frames come out; frames to the server are built here. Every
// rule a client must enforce is checked, and a text message is judged as UTF-8 as a whole,
// however it was split into frames. A message's payload is collected as it arrives, so memory
// stays about the size of the largest message allowed.
class WebSocketFramer {
public:
    enum class Opcode : quint8 {
        Continuation = 0x0,
        Text = 0x1,
        Binary = 0x2,
        Close = 0x8,
        Ping = 0x9,
        Pong = 0xA,
    };

    // Close codes the companion sends.
    static constexpr quint16 normalClosure = 1000;
    static constexpr quint16 goingAway = 1001;
    static constexpr quint16 protocolError = 1002;
    static constexpr quint16 invalidText = 1007;
    static constexpr quint16 messageTooBig = 1009;

    struct Event {
        enum class Kind { Text, Binary, Ping, Pong, Close, Failure };
        Kind kind = Kind::Failure;
        // The message, the control frame's payload, or the close reason (UTF-8).
        QByteArray payload;
        // Close: the code received (1005 when there was none). Failure: the code to close with.
        quint16 code = 0;
        // Failure: what was wrong, for the log.
        QString problem;
    };

    explicit WebSocketFramer(qsizetype largestMessage);

    // Reads `bytes`; the events they complete are appended to `events`, in order. After a
    // Failure the stream is not read any further.
    void feed(QByteArrayView bytes, QList<Event>& events);
    bool failed() const { return m_failed; }

    // One frame from the client: final, masked with `mask` as a client must.
    static QByteArray encode(Opcode opcode, QByteArrayView payload, quint32 mask);
    // The payload of a close frame: the code, then the reason cut to fit in 125 bytes.
    static QByteArray closePayload(quint16 code, const QByteArray& reason);
    // Whether a close code may appear in a close frame.
    static bool validCloseCode(quint16 code);

private:
    bool readHeader(QList<Event>& events);
    void makeRoom(qsizetype needed);
    void takePayload(QByteArrayView bytes);
    void finishFrame(QList<Event>& events);
    void fail(QList<Event>& events, quint16 code, const QString& problem);

    qsizetype m_largestMessage;
    QByteArray m_pending; // an incomplete frame header
    bool m_failed = false;

    // The frame being read.
    bool m_inFrame = false;
    Opcode m_opcode = Opcode::Continuation;
    bool m_final = false;
    quint64 m_remaining = 0;
    QByteArray m_control;

    // The message being put together from its frames.
    bool m_inMessage = false;
    Opcode m_messageOpcode = Opcode::Text;
    QByteArray m_message;
    Utf8Validator m_utf8;
};
