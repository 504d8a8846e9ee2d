#pragma once

#include <streambuf>

/// Direct access to the get and put areas of any stream buffer, for encoding and decoding a value of known
/// size in place. All calls are inline. Values that do not fit go through sgetn and sputn.
class xbufaccess : private std::streambuf
{
public:
    /// Returns the next `size` unread bytes, or null when the get area holds fewer. Consumes nothing.
    static const char* View(std::streambuf& buffer, std::size_t size)
    {
        const char* const next = Next(buffer);
        return static_cast<std::size_t>(End(buffer) - next) >= size ? next : nullptr;
    }
    /// Consumes `size` bytes that View returned.
    static void Consume(std::streambuf& buffer, int size) { (buffer.*&xbufaccess::gbump)(size); }

    /// Returns room for `size` bytes in the put area, or null when it has less. Nothing counts as written.
    static char* Reserve(std::streambuf& buffer, std::size_t size)
    {
        char* const place = Place(buffer);
        return static_cast<std::size_t>(Limit(buffer) - place) >= size ? place : nullptr;
    }
    /// Counts the `size` bytes in the room that Reserve returned as written.
    static void Commit(std::streambuf& buffer, int size) { (buffer.*&xbufaccess::pbump)(size); }

    /// Consumes the unread bytes before `place`, which lies in the get area.
    static void Advance(std::streambuf& buffer, const char* place)
    {
        (buffer.*&xbufaccess::setg)((buffer.*&xbufaccess::eback)(), const_cast<char*>(place),
                                    (buffer.*&xbufaccess::egptr)());
    }
    /// The unread bytes of the get area: from Next to End.
    static const char* Next(const std::streambuf& buffer) { return (buffer.*&xbufaccess::gptr)(); }
    static const char* End(const std::streambuf& buffer) { return (buffer.*&xbufaccess::egptr)(); }
    /// The room of the put area: from Place to Limit.
    static char* Place(const std::streambuf& buffer) { return (buffer.*&xbufaccess::pptr)(); }
    static char* Limit(const std::streambuf& buffer) { return (buffer.*&xbufaccess::epptr)(); }
};
