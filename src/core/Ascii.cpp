#include "Ascii.h"

bool Ascii::isAscii(const char* text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80) {
            return false;
        }
    }
    return true;
}

bool Ascii::isAscii(QStringView text) {
    for (QChar c : text) {
        if (c.unicode() >= 0x80) {
            return false;
        }
    }
    return true;
}
