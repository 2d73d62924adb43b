#include "VisibleText.h"

namespace {

enum class Shown { AsItIs, AsPicture, AsCode };

Shown howToShow(char16_t c) {
    if (c == u'\n') {
        return Shown::AsItIs;
    }
    if (c < 0x20 || c == 0x7f) {
        return Shown::AsPicture;
    }
    if ((c >= 0x80 && c <= 0x9f) || c == 0x061c || c == 0x200e || c == 0x200f ||
        (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) || c == 0x2028 ||
        c == 0x2029) {
        return Shown::AsCode;
    }
    return Shown::AsItIs;
}

bool needsEscaping(QStringView text) {
    for (const QChar c : text) {
        if (c.isSurrogate() || howToShow(c.unicode()) != Shown::AsItIs) {
            return true;
        }
    }
    return false;
}

} // namespace

QString VisibleText::escaped(QStringView text) {
    // Most paths have nothing to escape and come back unchanged.
    if (!needsEscaping(text)) {
        return text.toString();
    }
    QString shown;
    shown.reserve(text.size() + 16);
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            // None of the characters to escape is outside the BMP: a pair passes as it is.
            shown.append(text[i]);
            shown.append(text[++i]);
            continue;
        }
        if (QChar::isSurrogate(c)) {
            shown.append(QChar(QChar::ReplacementCharacter));
            continue;
        }
        switch (howToShow(c)) {
        case Shown::AsItIs:
            shown.append(QChar(c));
            break;
        case Shown::AsPicture:
            // U+2400 onwards has one picture per C0 control in order; DEL's is U+2421.
            shown.append(QChar(c == 0x7f ? char16_t(0x2421) : char16_t(0x2400 + c)));
            break;
        case Shown::AsCode:
            shown.append(u'\u27e8');
            shown.append(QStringLiteral("U+%1").arg(int(c), 4, 16, QChar(u'0')).toUpper());
            shown.append(u'\u27e9');
            break;
        }
    }
    return shown;
}

QString VisibleText::oneLine(QStringView text) {
    return escaped(text).replace(u'\n', u'\u2424');
}
