#pragma once

/// Directories: enumeration, creation and removal, the current directory, free space.

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// One entry. `dwFileAttributes` is FILE_ATTRIBUTE_DIRECTORY for a directory, not for a link to one.
struct WIN32_FIND_DATAA
{
    DWORD dwFileAttributes;
    char cFileName[platMaxName];
};

/// Begins the enumeration of a directory. Its first entry is always "."; ".." is left out. `pattern` is the
/// directory, a separator and "*", the only supported pattern; any other last name is ERROR_INVALID_NAME.
/// Wildcards before it have no special meaning. INVALID_HANDLE_VALUE when it fails. Used by one thread at a
/// time.
HANDLE FindFirstFileA(const char* pattern, WIN32_FIND_DATAA* data);
/// FALSE at the end too, with ERROR_NO_MORE_FILES.
BOOL FindNextFileA(HANDLE search, WIN32_FIND_DATAA* data);
BOOL FindClose(HANDLE search);

BOOL CreateDirectoryA(const char* path, SECURITY_ATTRIBUTES* security);

/// The current directory in native form with its drive. Returns its length; when `size` is too small, returns
/// the required size and leaves `buffer` unchanged; returns 0 when it fails.
DWORD GetCurrentDirectoryA(DWORD size, char* buffer);
BOOL SetCurrentDirectoryA(const char* path);

/// The space on the volume of `root`, or of the current directory when it is null. Clusters are as large as
/// it takes to count them in 32 bits.
BOOL GetDiskFreeSpaceA(const char* root, DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                       DWORD* allClusters);
