#pragma once

#include <cstddef>

#include <qel/base/btkutf.h>

// Access to one character of a text of either width, for the sources of btkstring.h.

template<typename C>
bool btkIsAscii(C unit)
{
    return static_cast<unsigned short>(unit) < 0x80; // a negative char is far above
}

/// Returns the bytes or units of the character at `text`, 0 at its end.
inline std::size_t btkCharSize(const char* text)
{
    return btkIsAscii(*text) ? *text != 0 : btkMBCharSize(text);
}

inline std::size_t btkCharSize(const unsigned short* text)
{
    return *text != 0;
}
