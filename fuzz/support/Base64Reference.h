#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Standard base64 as the stored and the agents' data use it, written from the rule alone:
// length a multiple of four, "=" only as the last one or two characters, every other character
// from the standard alphabet. Bits below the data in the last symbol are ignored.
namespace base64reference {

inline constexpr char alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline int symbolValue(char16_t c) {
    if (c >= u'A' && c <= u'Z') {
        return c - u'A';
    }
    if (c >= u'a' && c <= u'z') {
        return c - u'a' + 26;
    }
    if (c >= u'0' && c <= u'9') {
        return c - u'0' + 52;
    }
    return c == u'+' ? 62 : c == u'/' ? 63 : -1;
}

inline std::optional<QByteArray> decode(const QString& text) {
    const qsizetype n = text.size();
    if (n % 4 != 0) {
        return std::nullopt;
    }
    qsizetype padding = 0;
    if (n >= 1 && text[n - 1] == u'=') {
        padding = (n >= 2 && text[n - 2] == u'=') ? 2 : 1;
    }
    QByteArray out;
    for (qsizetype group = 0; group < n; group += 4) {
        const bool last = group + 4 == n;
        const int symbols = last ? 4 - static_cast<int>(padding) : 4;
        quint32 bits = 0;
        for (int k = 0; k < 4; ++k) {
            int value = 0;
            if (k < symbols) {
                value = symbolValue(text[group + k].unicode());
                if (value < 0) {
                    return std::nullopt;
                }
            }
            bits = (bits << 6) | static_cast<quint32>(value);
        }
        out.append(static_cast<char>((bits >> 16) & 0xff));
        if (symbols >= 3) {
            out.append(static_cast<char>((bits >> 8) & 0xff));
        }
        if (symbols == 4) {
            out.append(static_cast<char>(bits & 0xff));
        }
    }
    return out;
}

inline QString encode(const QByteArray& bytes) {
    QString out;
    for (qsizetype i = 0; i < bytes.size(); i += 3) {
        const qsizetype count = std::min<qsizetype>(3, bytes.size() - i);
        quint32 bits = 0;
        for (qsizetype k = 0; k < 3; ++k) {
            bits = (bits << 8) | (k < count ? static_cast<quint8>(bytes[i + k]) : 0u);
        }
        for (qsizetype k = 0; k < 4; ++k) {
            out +=
                k <= count ? QChar(char16_t(alphabet[(bits >> (18 - 6 * k)) & 0x3f])) : QChar(u'=');
        }
    }
    return out;
}

// An accepted text with the data-free low bits of its last symbol cleared: what encoding the
// decoded bytes gives back.
inline QString canonical(const QString& text) {
    QString out = text;
    const qsizetype n = out.size();
    if (n < 4 || out[n - 1] != u'=') {
        return out;
    }
    const bool two = out[n - 2] == u'=';
    const qsizetype at = two ? n - 3 : n - 2;
    const int mask = two ? 0x30 : 0x3c;
    out[at] = QChar(char16_t(alphabet[symbolValue(out[at].unicode()) & mask]));
    return out;
}

} // namespace base64reference
