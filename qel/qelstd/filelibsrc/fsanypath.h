#pragma once

#include <utility>

#include <qel/fspathargument.h>

// The operations of filelib.h with paths of other types: a std::filesystem::path is a host path; every other
// text is a native path, as its characters would be.

/// Declares the form of `function` whose first argument is a path of any type.
#define QEL_ANY_PATH(function)                                              \
    template<fsPathObject P, class... More>                                 \
    decltype(auto) function(const P& path, More&&... more)                  \
    {                                                                       \
        return function(fsPathArgument(path), std::forward<More>(more)...); \
    }                                                                       \
    static_assert(true)
/// The same for functions of two paths.
#define QEL_ANY_TWO_PATHS(function)                                                                  \
    template<fsAnyPath P, fsAnyPath Q, class... More>                                                \
    requires(fsPathObject<P> || fsPathObject<Q>) decltype(auto) function(const P& from, const Q& to, \
                                                                         More&&... more)             \
    {                                                                                                \
        return function(fsPathArgument(from), fsPathArgument(to), std::forward<More>(more)...);      \
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
