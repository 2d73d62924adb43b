#include "Utf8Validator.h"

#include <QtGlobal>

#include <cstring>

void Utf8Validator::reset() {
    m_valid = true;
    m_needed = 0;
    m_low = 0x80;
    m_high = 0xBF;
}

bool Utf8Validator::feed(QByteArrayView bytes) {
    if (!m_valid) {
        return false;
    }
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const qsizetype size = bytes.size();
    qsizetype i = 0;
    while (i < size) {
        if (m_needed == 0) {
            // Runs of ASCII, the usual case, eight bytes at a time.
            while (i + 8 <= size) {
                quint64 word;
                std::memcpy(&word, data + i, sizeof word);
                if (word & 0x8080808080808080ULL) {
                    break;
                }
                i += 8;
            }
            if (i == size) {
                break;
            }
            const unsigned char lead = data[i++];
            if (lead < 0x80) {
                continue;
            }
            // The ranges of the Unicode Standard's table of well-formed byte sequences.
            m_low = 0x80;
            m_high = 0xBF;
            if (lead >= 0xC2 && lead <= 0xDF) {
                m_needed = 1;
            } else if (lead == 0xE0) {
                m_needed = 2;
                m_low = 0xA0;
            } else if (lead == 0xED) {
                m_needed = 2;
                m_high = 0x9F;
            } else if (lead >= 0xE1 && lead <= 0xEF) {
                m_needed = 2;
            } else if (lead == 0xF0) {
                m_needed = 3;
                m_low = 0x90;
            } else if (lead >= 0xF1 && lead <= 0xF3) {
                m_needed = 3;
            } else if (lead == 0xF4) {
                m_needed = 3;
                m_high = 0x8F;
            } else {
                m_valid = false;
                return false;
            }
            continue;
        }
        const unsigned char next = data[i++];
        if (next < m_low || next > m_high) {
            m_valid = false;
            return false;
        }
        // Only the first continuation byte has narrower bounds.
        m_low = 0x80;
        m_high = 0xBF;
        --m_needed;
    }
    return true;
}
