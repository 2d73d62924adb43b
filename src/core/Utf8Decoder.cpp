#include "Utf8Decoder.h"

#include <QByteArray>

namespace {

constexpr char16_t replacement = 0xFFFD;

// Expected length and the allowed range of the second byte for a lead byte; 0 when the byte
// cannot start a sequence.
int sequenceLength(unsigned char lead, unsigned char& low, unsigned char& high) {
    low = 0x80;
    high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead == 0xE0) {
        low = 0xA0;
        return 3;
    }
    if ((lead >= 0xE1 && lead <= 0xEC) || lead == 0xEE || lead == 0xEF) {
        return 3;
    }
    if (lead == 0xED) {
        high = 0x9F;
        return 3;
    }
    if (lead == 0xF0) {
        low = 0x90;
        return 4;
    }
    if (lead >= 0xF1 && lead <= 0xF3) {
        return 4;
    }
    if (lead == 0xF4) {
        high = 0x8F;
        return 4;
    }
    return 0;
}

} // namespace

std::size_t Utf8Decoder::decodeSpan(const unsigned char* bytes, std::size_t size, bool final,
                                    QString& out) {
    // Written through a pointer into room made up front, not appended a character at a time: no
    // byte becomes more than one UTF-16 unit (four make a surrogate pair), so `size` is enough.
    const qsizetype base = out.size();
    out.resize(base + static_cast<qsizetype>(size));
    char16_t* const begin = reinterpret_cast<char16_t*>(out.data()) + base;
    char16_t* dst = begin;
    auto done = [&](std::size_t consumed) {
        out.truncate(base + (dst - begin));
        return consumed;
    };

    std::size_t i = 0;
    while (i < size) {
        // ASCII runs are the common case; copy them without the general machinery.
        while (i < size && bytes[i] < 0x80) {
            *dst++ = bytes[i++];
        }
        if (i == size) {
            break;
        }

        const unsigned char lead = bytes[i];
        unsigned char low = 0;
        unsigned char high = 0;
        const int length = sequenceLength(lead, low, high);
        if (length == 0) {
            *dst++ = replacement;
            ++i;
            continue;
        }
        char32_t codePoint = lead & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
        int taken = 1;
        bool broken = false;
        while (taken < length) {
            if (i + taken >= size) {
                if (!final) {
                    return done(i); // may be completed by the next chunk
                }
                broken = true;
                break;
            }
            const unsigned char next = bytes[i + taken];
            const unsigned char lo = taken == 1 ? low : 0x80;
            const unsigned char hi = taken == 1 ? high : 0xBF;
            if (next < lo || next > hi) {
                broken = true;
                break;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
            ++taken;
        }
        if (broken) {
            // The valid prefix read so far is one maximal subpart.
            *dst++ = replacement;
            i += taken;
            continue;
        }
        if (codePoint < 0x10000) {
            *dst++ = static_cast<char16_t>(codePoint);
        } else {
            *dst++ = QChar::highSurrogate(codePoint);
            *dst++ = QChar::lowSurrogate(codePoint);
        }
        i += length;
    }
    return done(i);
}

void Utf8Decoder::feed(const char* data, std::size_t size, QString& out) {
    auto bytes = reinterpret_cast<const unsigned char*>(data);
    std::size_t offset = 0;
    // Complete a sequence left over from the previous chunk first.
    while (m_pendingSize > 0 && offset < size) {
        m_pending[m_pendingSize++] = bytes[offset++];
        const std::size_t used = decodeSpan(m_pending, m_pendingSize, false, out);
        if (used == static_cast<std::size_t>(m_pendingSize)) {
            m_pendingSize = 0;
        } else if (used > 0) {
            // Part of the pending bytes were decoded (as replacement); keep the rest pending.
            const int rest = m_pendingSize - static_cast<int>(used);
            for (int k = 0; k < rest; ++k) {
                m_pending[k] = m_pending[used + k];
            }
            m_pendingSize = rest;
        }
    }
    if (offset == size) {
        return;
    }
    const std::size_t used = decodeSpan(bytes + offset, size - offset, false, out);
    for (std::size_t k = offset + used; k < size; ++k) {
        m_pending[m_pendingSize++] = bytes[k];
    }
}

void Utf8Decoder::finish(QString& out) {
    if (m_pendingSize > 0) {
        decodeSpan(m_pending, m_pendingSize, true, out);
        m_pendingSize = 0;
    }
}

QString Utf8Decoder::decode(const QByteArray& bytes) {
    QString out;
    out.reserve(bytes.size());
    Utf8Decoder decoder;
    decoder.feed(bytes.constData(), static_cast<std::size_t>(bytes.size()), out);
    decoder.finish(out);
    return out;
}
