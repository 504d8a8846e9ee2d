#pragma once

#include <cstring>
#include <streambuf>
#include <utility>

#include <qel/base/btkstrbuf.h>
#include <qel/base/btkstring.h>
#include <qel/base/xbufaccess.h>
#include <qel/xstring.h>

#include "ioserializer.h"

/// The largest size committed to a buffer at once: the buffer counts in ints.
constexpr std::size_t ioLargestPart = 0x10000000;

/// Writes `size` bytes, right into the buffer where it has room.
inline ioTryCode ioPut(std::streambuf& sb, const char* from, std::size_t size)
{
    if (size == 0)
        return ioSuccess; // `from` may be null
    if (char* const room = xbufaccess::Reserve(sb, size); room != nullptr && size <= ioLargestPart) {
        std::memcpy(room, from, size);
        xbufaccess::Commit(sb, static_cast<int>(size));
        return ioSuccess;
    }
    const std::streamsize count = static_cast<std::streamsize>(size);
    return sb.sputn(from, count) == count ? ioSuccess : ioIOError;
}

/// The character that ends a string in the ASCII form.
inline char ioDelimiterOf(const char* delims)
{
    return qelIsObject(delims) && *delims != '\0' ? *delims : '\n';
}

inline bool ioIsSpace(int c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The length of a text argument; null and the reserved pointers are the empty text.
inline std::size_t ioTextLength(const char* text)
{
    return qelIsObject(text) ? std::strlen(text) : 0;
}

/// Makes a string of known greatest length in place.
class ioStringMaker
{
public:
    explicit ioStringMaker(std::size_t length) : buffer(btkStrBuf::AllocMB(length + 1, &text)) {}
    ~ioStringMaker()
    {
        if (buffer != nullptr)
            buffer->Unlock();
    }
    ioStringMaker(const ioStringMaker&) = delete;
    ioStringMaker& operator=(const ioStringMaker&) = delete;

    /// The place for the bytes of the text.
    char* Text() { return text; }
    /// The string of the first `length` bytes; it ends at its first zero byte. Call once, last.
    xstring Finish(std::size_t length)
    {
        const std::size_t used = btkLengthWithin(text, length);
        if (used == 0)
            return xstring("");
        buffer->CommitMB(used);
        return xstring::Adopt({std::exchange(buffer, nullptr), text, nullptr});
    }

private:
    char* text = nullptr;
    btkStrBuf* buffer;
};

/// The string of `length` bytes; it ends at its first zero byte.
inline xstring ioMakeString(const char* bytes, std::size_t length)
{
    // `bytes` may be null when `length` is 0.
    const std::size_t used = length == 0 ? 0 : btkLengthWithin(bytes, length);
    if (used == 0)
        return xstring("");
    btkStrBuf* const buffer = btkStrBuf::Create(bytes, used);
    return xstring::Adopt({buffer, buffer->Created<char>(), nullptr});
}
