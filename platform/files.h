#pragma once

/// Files by path and by handle. Differences from Windows, on purpose:
/// - Only regular files are opened; anything else fails with ERROR_ACCESS_DENIED, without blocking.
/// - Opening for writing without sharing excludes other such writers, not readers.
/// - The calls that return a node's status follow soft links.
/// - MoveFileExA never replaces, regardless of its flags; nor does it copy to another volume.
/// Handles may be used by several threads under the same rules as file descriptors; child processes do not
/// inherit them.

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD FILE_SHARE_READ = 1;
inline constexpr DWORD FILE_SHARE_WRITE = 2;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;

enum GET_FILEEX_INFO_LEVELS { GetFileExInfoStandard };

struct WIN32_FILE_ATTRIBUTE_DATA
{
    DWORD dwFileAttributes;
    FILETIME ftCreationTime; // the time of the last status change (ctime)
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
};

/// INVALID_HANDLE_VALUE when it fails.
HANDLE CreateFileA(const char* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                   DWORD disposition, DWORD flags, HANDLE attributeSource);
BOOL CloseHandle(HANDLE file);

/// One read; 0 bytes are the end of the file.
BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* done, void* overlapped);
/// Writes all or fails; `*done` receives the number of bytes written in either case.
BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* done, void* overlapped);
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* position, DWORD from);
BOOL SetEndOfFile(HANDLE file);

BOOL GetFileAttributesExA(const char* path, GET_FILEEX_INFO_LEVELS level, void* data);

BOOL MoveFileExA(const char* from, const char* to, DWORD flags);

/// Creates an empty file with a new name: `prefix`, eight hexadecimal digits and ".TMP". `unique` must be 0
/// and `name` have room for MAX_PATH bytes. Returns 0 when it fails. The whole prefix is used, not only three
/// letters; one that holds a separator is ERROR_INVALID_NAME.
unsigned GetTempFileNameA(const char* directory, const char* prefix, unsigned unique, char* name);
/// The same for a directory.
unsigned platMakeTempDirectory(const char* directory, const char* prefix, unsigned unique, char* name);

struct timespec;
/// The signed 64-bit count covers the years -27627 to 30828; other times are clamped to that range.
FILETIME platFileTime(const struct timespec& time);
/// Whole seconds since 1970-01-01 00:00 UTC, rounded down.
long long platSecondsOf(const FILETIME& time);
