#pragma once

#include <qel/xstring.h>

// Path arithmetic: text, no file is touched. Paths are written with "/" or "\"; results are in native form,
// with "\". A path that is converted may have 259 bytes; a longer one, and any other invalid path, throws
// fsXInvalidPath with the path concerned. A remote path is an address, "::" and a local path. Null means the
// empty text unless stated otherwise. Safe to call from any thread.

/// 1 when `path` begins with "/", or with a drive (a letter and ":") and a separator; else 0.
QEL_API unsigned char fsIsPathAbsolute(const char* path);

/// `path` with every "/" as "\", and nothing else changed. Null: null. Without "/" its length is not checked.
QEL_API xstring fsPathToNative(const char* path);

/// `directory`, "\" and `relative`, in native form. An absolute or remote `relative` is refused; a result
/// that is too long throws with a null path.
QEL_API xstring fsCatPaths(const char* directory, const char* relative);

/// `address`, "::" and `local`, in native form. Null `address`: `local` as given. A remote `local` is
/// refused.
QEL_API xstring fsMkRemPath(const char* address, const char* local);

/// The part before the first "::"; null when there is none.
QEL_API xstring fsGetAddress(const char* remote);

/// The part behind the first "::", in native form; without "::" the whole path, unchanged.
QEL_API xstring fsGetLocalPath(const char* remote);

// The ends of a path. Entries are the parts between separators; a separator at the beginning, or behind a
// drive, belongs to the part before it. Null, the empty path and a drive alone: null. A remote path is
// refused.

/// All but the last entry: `C:\a` of `C:\a\b`, `C:\` of `C:\a`. Null when there is no separator.
QEL_API xstring fsGetHeadPath(const char* path);
/// The first entry; all of the path when there is no separator.
QEL_API xstring fsGetHeadEntry(const char* path);
/// All but the first entry; null when nothing follows it.
QEL_API xstring fsGetTailPath(const char* path);
/// The last entry; null when the path ends with a separator.
QEL_API xstring fsGetTailEntry(const char* path);

/// The part of `path` before the separator at `separator`, which points into it. A separator at the
/// beginning, or behind a drive, is kept. Truncates `path` there.
QEL_API xstring fsSeparatePathHead(char* path, char* separator);
/// The part behind the separator at `separator`; null when nothing follows.
QEL_API xstring fsSeparatePathTail(const char* separator);

/// The longest common prefix of whole entries; null when there is none. Case-sensitive. An empty path, a
/// drive alone and a remote path are refused.
QEL_API xstring fsIntersectPaths(const char* a, const char* b);

// ---- the operating system's own paths

/// The path by which the operations find the node that the operating system calls `path`, absolute or
/// relative to the current directory; of any length. Null: null.
/// @throws fsXInvalidPath  `path` is absolute and lies on no drive
QEL_API xstring fsPathFromHost(const char* path);
/// The operating system's path of the node at `path`, or its name for a name from a listing; of any length. A
/// path on no drive is converted name by name only. Null: null.
QEL_API xstring fsPathToHost(const char* path);
