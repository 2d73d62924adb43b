#include "CompactJson.h"

#include <algorithm>
#include <cstring>

namespace {

char hexDigit(unsigned value) {
    return "0123456789abcdef"[value & 0xF];
}

// Whether an ASCII character is written as it is inside a string.
bool isPlainAscii(unsigned c) {
    return c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
}

// One ASCII character that needs escaping, as Qt escapes it.
char* writeEscape(char* out, unsigned c) {
    *out++ = '\\';
    switch (c) {
    case '"':
        *out++ = '"';
        break;
    case '\\':
        *out++ = '\\';
        break;
    case '\b':
        *out++ = 'b';
        break;
    case '\f':
        *out++ = 'f';
        break;
    case '\n':
        *out++ = 'n';
        break;
    case '\r':
        *out++ = 'r';
        break;
    case '\t':
        *out++ = 't';
        break;
    default:
        *out++ = 'u';
        *out++ = '0';
        *out++ = '0';
        *out++ = hexDigit(c >> 4);
        *out++ = hexDigit(c);
        break;
    }
    return out;
}

// The longest a character can get: \uXXXX.
constexpr qsizetype longestEscape = 6;

} // namespace

CompactJson::CompactJson(qsizetype expectedSize) {
    m_out.resize(std::max<qsizetype>(expectedSize, 64));
}

char* CompactJson::room(qsizetype bytes) {
    if (m_out.size() - m_size < bytes) {
        m_out.resize(std::max(m_size + bytes, 2 * m_out.size()));
    }
    return m_out.data() + m_size;
}

void CompactJson::raw(QByteArrayView text) {
    char* out = room(text.size());
    std::memcpy(out, text.data(), static_cast<std::size_t>(text.size()));
    m_size += text.size();
}

void CompactJson::string(QStringView text) {
    char* const start = room(2 + longestEscape * text.size());
    char* out = start;
    *out++ = '"';
    const char16_t* src = text.utf16();
    const char16_t* const end = src + text.size();
    while (src != end) {
        const char16_t c = *src++;
        if (c < 0x80) {
            if (isPlainAscii(c)) {
                *out++ = char(c);
            } else {
                out = writeEscape(out, c);
            }
        } else if (c < 0x800) {
            *out++ = char(0xC0 | (c >> 6));
            *out++ = char(0x80 | (c & 0x3F));
        } else if (QChar::isHighSurrogate(c) && src != end && QChar::isLowSurrogate(*src)) {
            const char32_t code = QChar::surrogateToUcs4(c, *src++);
            *out++ = char(0xF0 | (code >> 18));
            *out++ = char(0x80 | ((code >> 12) & 0x3F));
            *out++ = char(0x80 | ((code >> 6) & 0x3F));
            *out++ = char(0x80 | (code & 0x3F));
        } else if (QChar::isSurrogate(c)) {
            *out++ = '\\';
            *out++ = 'u';
            *out++ = hexDigit(c >> 12);
            *out++ = hexDigit(c >> 8);
            *out++ = hexDigit(c >> 4);
            *out++ = hexDigit(c);
        } else {
            *out++ = char(0xE0 | (c >> 12));
            *out++ = char(0x80 | ((c >> 6) & 0x3F));
            *out++ = char(0x80 | (c & 0x3F));
        }
    }
    *out++ = '"';
    m_size += out - start;
}

void CompactJson::asciiString(QByteArrayView ascii) {
    char* const start = room(2 + longestEscape * ascii.size());
    char* out = start;
    *out++ = '"';
    for (const char c : ascii) {
        const auto byte = static_cast<unsigned char>(c);
        if (isPlainAscii(byte)) {
            *out++ = c;
        } else {
            out = writeEscape(out, byte);
        }
    }
    *out++ = '"';
    m_size += out - start;
}

void CompactJson::integer(qint64 value) {
    // Digits from the back of a small buffer: cheaper than std::to_chars for the short numbers
    // of a listing. The magnitude goes through unsigned so that the smallest qint64 works too.
    char digits[20];
    char* const end = digits + sizeof digits;
    char* first = end;
    quint64 magnitude = value < 0 ? 0 - quint64(value) : quint64(value);
    do {
        *--first = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    const qsizetype length = (end - first) + (value < 0 ? 1 : 0);
    char* out = room(length);
    if (value < 0) {
        *out++ = '-';
    }
    std::memcpy(out, first, static_cast<std::size_t>(end - first));
    m_size += length;
}

QByteArray CompactJson::take() {
    m_out.truncate(m_size);
    m_size = 0;
    return std::move(m_out);
}
