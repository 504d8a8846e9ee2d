#include <memory>
#include <ostream>
#include <string_view>
#include <strstream>

#include "xstringform_p.h"

xstring::xstring(std::strstream& stream)
{
    *this = stream;
}

xstring& xstring::operator=(std::strstream& stream)
{
    // The terminator goes to where the next output will begin, so that the stream can be written to further.
    std::strstreambuf* const source = stream.rdbuf();
    const bool terminated = source->sputc(0) == 0;
    if (terminated)
        source->pubseekoff(-1, std::ios_base::cur, std::ios_base::out);
    const char* const text = source->str(); // freezes
    const std::size_t written = static_cast<std::size_t>(source->pcount());
    try {
        if (text == nullptr)
            setEmpty();
        else
            Form<char>::create(*this, text, terminated ? Strlen(text) : strnlen(text, written));
    } catch (...) {
        source->freeze(false);
        throw;
    }
    source->freeze(false);
    return *this;
}

std::ostream& operator<<(std::ostream& o, const xstring& s)
{
    if (s.buffer == nullptr)
        return o << "nil";
    if (s.mb != nullptr)
        return o << std::string_view(s.mb, s.buffer->GetMBLength());
    const std::unique_ptr<char[]> converted(StrneW(s.wide));
    if (converted == nullptr)
        qelThrowInvalidWide();
    return o << std::string_view(converted.get());
}
