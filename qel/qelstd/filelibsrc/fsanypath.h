#pragma once

#include <utility>

#include <qel/fspath.h>

// The operations of filelib.h with paths of other types: a std::filesystem::path is a host path; every other
// text is a native path, as its characters would be.

/// Whether P is std::filesystem::path, whose header is not included here.
template<class P>
concept fsHostPath = requires(const P& path)
{
    typename P::string_type;
    path.native();
    path.lexically_normal();
};
/// A path that is neither a `const char*` nor a literal.
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

/// Declares the form of `function` whose first argument is a path of any type.
#define QEL_ANY_PATH(function)                                                                        \
    template<fsPathObject P, class... More>                                                           \
    decltype(auto) function(const P& path, More&&... more)                                            \
    {                                                                                                 \
        return function(static_cast<const char*>(fsPathArgument(path)), std::forward<More>(more)...); \
    }                                                                                                 \
    static_assert(true)
/// The same for functions of two paths.
#define QEL_ANY_TWO_PATHS(function)                                                                  \
    template<fsAnyPath P, fsAnyPath Q, class... More>                                                \
    requires(fsPathObject<P> || fsPathObject<Q>) decltype(auto) function(const P& from, const Q& to, \
                                                                         More&&... more)             \
    {                                                                                                \
        return function(static_cast<const char*>(fsPathArgument(from)),                              \
                        static_cast<const char*>(fsPathArgument(to)), std::forward<More>(more)...);  \
    }                                                                                                \
    static_assert(true)

QEL_ANY_PATH(fsCreateDir);
QEL_ANY_PATH(fsRemove);
QEL_ANY_PATH(fsRename);
QEL_ANY_PATH(fsReadLink);
QEL_ANY_PATH(fsSetFileSize);
QEL_ANY_PATH(fsChangeDir);
QEL_ANY_PATH(fsMkTmpName);
QEL_ANY_PATH(fsMkTmpDir);
QEL_ANY_PATH(fsGetAvailableDiskSpace);
QEL_ANY_PATH(fsListDirectory);
QEL_ANY_PATH(fsExpandPattern);
QEL_ANY_PATH(fsCalculateCheckSum);
QEL_ANY_PATH(fsGetNodeInfo);
QEL_ANY_PATH(fshGetModTime);
QEL_ANY_PATH(fshGetSize);
QEL_ANY_PATH(fshGetNodeType);
QEL_ANY_PATH(fshIsDirectory);
QEL_ANY_PATH(fshIsFile);
QEL_ANY_PATH(fshIsSoftLink);
QEL_ANY_PATH(fshExists);
QEL_ANY_TWO_PATHS(fsMove);
QEL_ANY_TWO_PATHS(fsCopy);
QEL_ANY_TWO_PATHS(fsCreateSoftLink);

#undef QEL_ANY_PATH
#undef QEL_ANY_TWO_PATHS
