#include <algorithm>
#include <memory>
#include <ostream>
#include <string_view>
#include <strstream>

#include "xstringform_p.h"

namespace {

/// Freezes a stream's text during its lifetime.
struct Frozen
{
    explicit Frozen(std::strstreambuf* source) : held(source), text(source->str()) {}
    ~Frozen() { held->freeze(false); }

    std::strstreambuf* held;
    const char* text; // null when nothing has been written to a stream without room
};

} // namespace

xstring::xstring(std::strstream& stream)
{
    *this = stream;
}

xstring& xstring::operator=(std::strstream& stream)
{
    // The terminator is at the position of the next output, so that the stream can be written to further.
    std::strstreambuf* const source = stream.rdbuf();
    const bool terminated = source->sputc(0) == 0;
    if (terminated)
        source->pubseekoff(-1, std::ios_base::cur, std::ios_base::out);
    const Frozen frozen(source);
    // A full array has no terminator.
    const char* const text = frozen.text;
    const char* const end = terminated ? text + Strlen(text) : std::find(text, text + source->pcount(), 0);
    *this = Form<char>::make(text, static_cast<std::size_t>(end - text));
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
