#pragma once

#include <QString>

#include <cstddef>

// Incremental UTF-8 decoder that never fails: each maximal subpart of an ill-formed sequence
// becomes one U+FFFD, as the Unicode Standard recommends. Input may be split anywhere; the
// result equals decoding the concatenated input in one go.
class Utf8Decoder {
public:
    // Appends the text of `data` to `out`; a sequence cut by the end of `data` is kept for the
    // next call.
    void feed(const char* data, std::size_t size, QString& out);
    // Ends the input: a sequence still pending becomes one U+FFFD.
    void finish(QString& out);

    static QString decode(const QByteArray& bytes);

private:
    unsigned char m_pending[4] = {};
    int m_pendingSize = 0;

    // Decodes from `bytes` (with `final` meaning nothing follows); returns how many bytes were
    // consumed. Fewer than `size` only when a sequence at the end may still be completed.
    static std::size_t decodeSpan(const unsigned char* bytes, std::size_t size, bool final,
                                  QString& out);
};
