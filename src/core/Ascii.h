#pragma once

#include <QStringView>

#include <cstddef>

// Plain ASCII text needs no Unicode case folding or normalisation, so callers take a fast path.
namespace Ascii {

bool isAscii(const char* text, std::size_t length);
bool isAscii(QStringView text);

} // namespace Ascii
