#pragma once

/// The registry, kept as a tree of plain files below the directory that QELSTD_REGISTRY names; by default
/// `qelstd/registry` in the user's configuration directory (XDG_CONFIG_HOME, or `.config` in the home
/// directory). docs/registry.md shows the form of the tree. Differences from Windows, on purpose:
/// - Nothing is asked about rights: the store is the user's own (directories 0700, files 0600).
/// - A path that is empty, begins with a separator or doubles one is ERROR_BAD_PATHNAME.
/// - Names differ by anything but ASCII case. A name has room for about 1300 bytes at the least, and for 4000
///   when it is of ASCII letters and digits.
/// - An enumeration gives what was there when index 0 was asked for, whatever is changed meanwhile.
///
/// The calls answer an error number, 0 for success; the last error says nothing about them. When no variable
/// says where the store is, it is ERROR_ENVVAR_NOT_FOUND. Changes are made
/// one at a time whoever makes them; a value is read whole, as it was before or after a change, and without
/// waiting. Keys may be used by several threads. The variable is read on each call that begins at a root.

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

/// Opens `path` below `parent`, creating what is missing of it.
long RegCreateKeyExA(HKEY parent, const char* path, DWORD reserved, char* className, DWORD options,
                     DWORD access, SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition);
long RegOpenKeyExA(HKEY parent, const char* path, DWORD options, DWORD access, HKEY* key);
/// A root stays open.
long RegCloseKey(HKEY key);
/// Deletes a key with its values. ERROR_ACCESS_DENIED when it has subkeys.
long RegDeleteKeyA(HKEY parent, const char* path);

/// `data` and `size` are taken as they are, a terminator included. At most 16 MiB.
long RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const unsigned char* data,
                    DWORD size);
/// `type`, and `data` with `size`, may be null. `*size` is the buffer's size and receives the data's;
/// ERROR_MORE_DATA when the buffer is too small.
long RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, unsigned char* data,
                      DWORD* size);
long RegDeleteValueA(HKEY key, const char* name);

/// The name, as it was written, of the direct subkey `index`; they are in the order of their names without
/// case. `*size` is the room for it and its zero byte, and receives its length; ERROR_MORE_DATA when that is
/// too small, ERROR_NO_MORE_ITEMS behind the last one. A class is answered as empty. All but the first four
/// may be null.
long RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* size, DWORD* reserved, char* className,
                   DWORD* classSize, FILETIME* lastWrite);
/// The same for values. `type`, and `data` with `dataSize`, are as in RegQueryValueExA; a value that cannot
/// be read, or is gone by now, has the type REG_NONE and no data.
long RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* size, DWORD* reserved, DWORD* type,
                   unsigned char* data, DWORD* dataSize);
