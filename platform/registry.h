#pragma once

/// The registry, kept as a tree of plain files below the directory that QELSTD_REGISTRY names. Without that
/// variable, the system's root is in /etc/qelstd/registry where that directory exists; all else is in
/// `qelstd/registry` of the user's configuration directory (XDG_CONFIG_HOME, or `.config` in the home
/// directory). docs/registry.md shows the form of the tree. Differences from Windows, on purpose:
/// - Access rights are not checked per call: a store is its user's own (directories 0700, files 0600); the
///   one in /etc is readable by all users (0755, 0644).
/// - A path that is empty, begins with a separator or doubles one is ERROR_BAD_PATHNAME.
/// - Comparison of names ignores ASCII case. A name may have at least about 1300 bytes, and 4000 when it
///   consists of ASCII letters and digits.
/// - An enumeration returns the state at the thread's call for index 0, independent of later changes.
///
/// The calls return an error number, 0 for success, and do not report through the last error.
/// ERROR_FILE_NOT_FOUND means that the key or value is certainly absent. A link inside a store is neither a
/// key nor a value and is never followed: opening it, and any other failure to read a key or value, returns
/// another error. When no variable names the location of the store, the error is ERROR_ENVVAR_NOT_FOUND.
///
/// Changes are serialized, also between processes; each is on the disk when the call returns, except in a
/// batch. A read returns a whole value, from before or after a change, and does not wait. Keys may be used by
/// several threads. The variables are read on each call that begins at a root.

#include <string>
#include <string_view>

#include <qel/platform/platformtypes.h>

using HKEY = struct HKEY__*;

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<std::size_t>(0x80000000)))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<std::size_t>(0x80000001)))

inline constexpr DWORD KEY_ALL_ACCESS = 0xF003F;
inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

/// Opens `path` below `parent`. Missing parts are created atomically; a key that has lost its written name
/// gets it again.
long RegCreateKeyExA(HKEY parent, const char* path, DWORD reserved, char* className, DWORD options,
                     DWORD access, SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition);
long RegOpenKeyExA(HKEY parent, const char* path, DWORD options, DWORD access, HKEY* key);
/// A root stays open.
long RegCloseKey(HKEY key);
/// Deletes a key with its values. ERROR_ACCESS_DENIED when it has subkeys, ERROR_DIR_NOT_EMPTY when its
/// directory holds files that are not part of the registry.
long RegDeleteKeyA(HKEY parent, const char* path);

/// `data` and `size` are stored unchanged, including a terminator. At most 16 MiB.
long RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const unsigned char* data,
                    DWORD size);
/// `type`, and `data` with `size`, may be null. `*size` is the buffer's size and receives the data's;
/// ERROR_MORE_DATA when the buffer is too small.
long RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, unsigned char* data,
                      DWORD* size);
long RegDeleteValueA(HKEY key, const char* name);

/// The name, as it was written, of the direct subkey `index`; they are in the order of their names without
/// case. `*size` is the room for it and its zero byte, and receives its length; ERROR_MORE_DATA when that is
/// too small, ERROR_NO_MORE_ITEMS behind the last one. The class is always empty. All but the first four may
/// be null.
long RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* size, DWORD* reserved, char* className,
                   DWORD* classSize, FILETIME* lastWrite);
/// The same for values. `type`, and `data` with `dataSize`, are as in RegQueryValueExA; a value that cannot
/// be read, or has been deleted meanwhile, has the type REG_NONE and no data.
long RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* size, DWORD* reserved, DWORD* type,
                   unsigned char* data, DWORD* dataSize);

/// The directory that stores a root; empty when its location is unknown.
std::string platRegistryFolder(HKEY root);

/// Parses the bytes of a value's file: the type, and the name as platWrittenName returned it. Returns the offset
/// of the data, in bytes; 0 when they are not the bytes of such a file.
std::size_t platParseValue(std::string_view text, DWORD& type, std::string_view& writtenName);

/// Between platBeginBatch and as many platEndBatch calls, the calling thread's changes take effect as usual,
/// but are written to the disk only by platCommitBatch, all at once, and by the last platEndBatch. Until
/// then, a loss of power may undo any of them or leave a value that is ERROR_FILE_CORRUPT.
void platBeginBatch();
/// Returns an error number.
long platCommitBatch();
void platEndBatch();
