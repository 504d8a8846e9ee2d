#pragma once

/// Types and constants that the Windows-named calls of this folder share. Only what the libraries use is
/// here; on Windows the system's own header takes the place of this folder.

#include <cstddef>

using BOOL = int;
using DWORD = unsigned int;
using HANDLE = void*;

inline constexpr BOOL FALSE = 0;
inline constexpr BOOL TRUE = 1;

/// Room for a path with its terminator, and for a name in the form shown: 255 bytes, each of which can take
/// three bytes when shown.
inline constexpr DWORD MAX_PATH = 260;
inline constexpr DWORD platMaxName = 255 * 3 + 1;

/// Returned by a call that fails to return a handle.
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<std::ptrdiff_t>(-1)))

struct LARGE_INTEGER
{
    long long QuadPart;
};

/// A point in time: 100-nanosecond steps since 1601-01-01 00:00 UTC, in two halves.
struct FILETIME
{
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

/// Seconds between the beginning of FILETIME's count and 1970.
inline constexpr long long platSecondsTo1970 = 11644473600LL;

struct SECURITY_ATTRIBUTES;
