#pragma once

#include <type_traits>

#include <qel/fspath.h>

// Arguments that are paths: a std::filesystem::path is a path of the operating system; every other text is a native
// path, as its characters would be.

/// Whether P is std::filesystem::path, whose header is not included here.
template<class P>
concept fsHostPath = requires(const P& path)
{
    typename P::string_type;
    path.native();
    path.lexically_normal();
};
/// Any path but those that are a `const char*` already.
template<class P>
concept fsPathObject = fsHostPath<P> || qelTextObject<P>;
template<class P>
concept fsAnyPath = fsPathObject<P> || std::is_convertible_v<const P&, const char*>;

/// The native path of an argument, for the duration of a call.
class fsPathArgument
{
public:
    template<fsAnyPath P>
    fsPathArgument(const P& path)
    {
        if constexpr (std::is_convertible_v<const P&, const char*>)
            native = path;
        else if constexpr (fsHostPath<P>)
            text = path.native().empty() ? xstring("") : fsPathFromHost(path.native().c_str()),
            native = text.CastToCString();
        else
            text = path, native = text.CastToCString();
    }
    fsPathArgument(const fsPathArgument&) = delete;
    fsPathArgument& operator=(const fsPathArgument&) = delete;
    operator const char*() const { return native; }

private:
    xstring text;
    const char* native = nullptr;
};
