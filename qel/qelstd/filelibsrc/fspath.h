#pragma once

#include <qel/xstring.h>

// Path arithmetic: text, no file is touched. Paths are written with "/" or "\"; results are in native
// form, with "\". A path that is converted may have 259 bytes; a longer one, and everything else that is
// refused, throws fsXInvalidPath with the path concerned. A remote path is an address, "::" and a local path.
// Null is taken for the empty text where nothing else is said. Safe to call from any thread.

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

/// What stands before the first "::"; null when there is none.
QEL_API xstring fsGetAddress(const char* remote);

/// What stands behind the first "::", in native form; all of it, as given, when there is none.
QEL_API xstring fsGetLocalPath(const char* remote);

// The ends of a path. Entries are what the separators part; a separator at the beginning, or behind a drive,
// belongs to what stands before it. Null, the empty path and a drive alone: null. A remote path is refused.

/// All but the last entry: `C:\a` of `C:\a\b`, `C:\` of `C:\a`. Null when there is no separator.
QEL_API xstring fsGetHeadPath(const char* path);
/// The first entry; all of the path when there is no separator.
QEL_API xstring fsGetHeadEntry(const char* path);
/// All but the first entry; null when nothing follows it.
QEL_API xstring fsGetTailPath(const char* path);
/// The last entry; null when the path ends with a separator.
QEL_API xstring fsGetTailEntry(const char* path);

/// The part of `path` before the separator at `separator`, which points into it. A separator at the
/// beginning, or behind a drive, is kept. Ends `path` there, and leaves it so.
QEL_API xstring fsSeparatePathHead(char* path, char* separator);
/// The part behind the separator at `separator`; null when nothing follows.
QEL_API xstring fsSeparatePathTail(const char* separator);

/// The longest run of whole entries with which both begin; null when there is none. Case counts. An empty
/// path, a drive alone and a remote path are refused.
QEL_API xstring fsIntersectPaths(const char* a, const char* b);

// ---- this host's own paths

/// The path by which the operations find what the host itself calls `path`, absolute or relative to the
/// current directory; of any length. Null: null.
/// @throws fsXInvalidPath  `path` is absolute and lies on no drive
QEL_API xstring fsPathFromHost(const char* path);
/// What the host calls the node at `path`, or a name that a listing gives; of any length. What lies on no
/// drive is only made the host's name by name. Null: null.
QEL_API xstring fsPathToHost(const char* path);
