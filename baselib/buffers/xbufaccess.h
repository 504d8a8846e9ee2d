#pragma once

#include <streambuf>

/// Direct access to the get and put areas of any stream buffer, so that a value of known size can be encoded
/// right into it and decoded right out of it. All calls are inline. What does not fit goes through sgetn and
/// sputn.
class xbufaccess : private std::streambuf
{
public:
    /// The next `size` unread bytes, or null when the get area holds fewer. Nothing is consumed.
    static const char* View(std::streambuf& buffer, std::size_t size)
    {
        const char* const next = Next(buffer);
        return static_cast<std::size_t>(End(buffer) - next) >= size ? next : nullptr;
    }
    /// Takes `size` bytes that View has shown.
    static void Consume(std::streambuf& buffer, int size) { (buffer.*&xbufaccess::gbump)(size); }

    /// Room for `size` bytes in the put area, or null when it has less. Nothing counts as written.
    static char* Reserve(std::streambuf& buffer, std::size_t size)
    {
        char* const place = Place(buffer);
        return static_cast<std::size_t>(Limit(buffer) - place) >= size ? place : nullptr;
    }
    /// Writes the `size` bytes that now stand in the room that Reserve gave.
    static void Commit(std::streambuf& buffer, int size) { (buffer.*&xbufaccess::pbump)(size); }

    /// Takes the unread bytes before `place`, which lies in the get area.
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
