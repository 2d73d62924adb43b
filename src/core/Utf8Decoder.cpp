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

void appendCodePoint(char32_t codePoint, QString& out) {
    if (codePoint < 0x10000) {
        out.append(QChar(static_cast<char16_t>(codePoint)));
    } else {
        out.append(QChar(QChar::highSurrogate(codePoint)));
        out.append(QChar(QChar::lowSurrogate(codePoint)));
    }
}

} // namespace

std::size_t Utf8Decoder::decodeSpan(const unsigned char* bytes, std::size_t size, bool final,
                                    QString& out) {
    std::size_t i = 0;
    while (i < size) {
        // ASCII runs are the common case; copy them without the general machinery.
        std::size_t run = i;
        while (run < size && bytes[run] < 0x80) {
            ++run;
        }
        if (run > i) {
            out.append(QLatin1StringView(reinterpret_cast<const char*>(bytes + i),
                                         static_cast<qsizetype>(run - i)));
            i = run;
            if (i == size) {
                break;
            }
        }

        const unsigned char lead = bytes[i];
        unsigned char low = 0;
        unsigned char high = 0;
        const int length = sequenceLength(lead, low, high);
        if (length == 0) {
            out.append(QChar(replacement));
            ++i;
            continue;
        }
        char32_t codePoint = lead & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
        int taken = 1;
        bool broken = false;
        while (taken < length) {
            if (i + taken >= size) {
                if (!final) {
                    return i; // may be completed by the next chunk
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
            out.append(QChar(replacement));
            i += taken;
            continue;
        }
        appendCodePoint(codePoint, out);
        i += length;
    }
    return i;
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
