#pragma once

#include <QByteArrayView>

// Checks UTF-8 as it arrives in pieces split anywhere, as a WebSocket text message must be
// judged: over the whole message, not piece by piece. Strict: no overlong forms, no surrogates,
// nothing above U+10FFFF.
class Utf8Validator {
public:
    // False as soon as the bytes so far cannot begin valid UTF-8; stays false.
    bool feed(QByteArrayView bytes);
    // Whether everything fed so far is valid and complete (no character cut at the end).
    bool complete() const { return m_valid && m_needed == 0; }
    bool valid() const { return m_valid; }
    void reset();

private:
    bool m_valid = true;
    int m_needed = 0;           // continuation bytes still expected
    unsigned char m_low = 0x80; // bounds of the next continuation byte
    unsigned char m_high = 0xBF;
};
