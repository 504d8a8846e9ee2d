#include "directories.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkfolder.h>
#include <qel/base/btkpath.h>
#include <qel/base/btkretry.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>

namespace {

constexpr unsigned newDirectoryMode = 0777;

btkFolder* folderOf(HANDLE search)
{
    return search == INVALID_HANDLE_VALUE ? nullptr : static_cast<btkFolder*>(search);
}

} // namespace

HANDLE FindFirstFileA(const char* pattern, WIN32_FIND_DATAA* data)
{
    const std::string_view whole = pattern == nullptr ? "" : pattern;
    const std::size_t end = whole.find_last_of("/\\:");
    const std::size_t begin = end == std::string_view::npos ? 0 : end + 1;
    if (whole.substr(begin) != "*") {
        platFailWith(ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }
    const std::string directory = begin == 0 ? "." : std::string(whole.substr(0, begin));
    auto folder = std::make_unique<btkFolder>();
    std::string host;
    if (!platDone(btkHostPath(directory.c_str(), host)))
        return INVALID_HANDLE_VALUE;
    if (!folder->OpenHost(AT_FDCWD, host.c_str())) {
        if (errno == ENOTDIR)
            platFailWith(ERROR_DIRECTORY);
        else
            platFailOn(host);
        return INVALID_HANDLE_VALUE;
    }
    data->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    std::strcpy(data->cFileName, ".");
    return folder.release();
}

BOOL FindNextFileA(HANDLE search, WIN32_FIND_DATAA* data)
{
    btkFolder* folder = folderOf(search);
    if (folder == nullptr)
        return platFailWith(ERROR_INVALID_HANDLE);
    btkEntry entry;
    if (!folder->Read(entry))
        return folder->IsAtEnd() ? platFailWith(ERROR_NO_MORE_FILES) : platFail();
    data->dwFileAttributes = entry.kind == btkDirectory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    if (btkIsShownAsIs(entry.hostName))
        std::snprintf(data->cFileName, sizeof data->cFileName, "%s", entry.hostName);
    else
        std::snprintf(data->cFileName, sizeof data->cFileName, "%s", btkNativeName(entry.hostName).c_str());
    return TRUE;
}

BOOL FindClose(HANDLE search)
{
    btkFolder* folder = folderOf(search);
    if (folder == nullptr)
        return platFailWith(ERROR_INVALID_HANDLE);
    delete folder;
    return TRUE;
}

BOOL CreateDirectoryA(const char* path, SECURITY_ATTRIBUTES*)
{
    std::string host;
    if (!platDone(btkHostPath(path, host)))
        return FALSE;
    return mkdir(host.c_str(), newDirectoryMode) == 0 ? TRUE : platFailOn(host);
}

DWORD GetCurrentDirectoryA(DWORD size, char* buffer)
{
    char host[PATH_MAX];
    std::string native;
    if (getcwd(host, sizeof host) == nullptr)
        return static_cast<DWORD>(platFail());
    if (!platDone(btkNativePath(host, native)))
        return 0;
    const auto length = static_cast<DWORD>(native.size());
    if (length >= size)
        return length + 1;
    std::memcpy(buffer, native.c_str(), length + 1);
    return length;
}

BOOL SetCurrentDirectoryA(const char* path)
{
    std::string host;
    if (!platDone(btkHostPath(path, host)))
        return FALSE;
    return chdir(host.c_str()) == 0 ? TRUE : platFailOn(host);
}

BOOL GetDiskFreeSpaceA(const char* root, DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                       DWORD* allClusters)
{
    constexpr unsigned long sectorSize = 512;
    std::string host = ".";
    if (root != nullptr && !platDone(btkHostPath(root, host)))
        return FALSE;
    struct statvfs volume;
    if (btkRetry([&] { return statvfs(host.c_str(), &volume); }) != 0)
        return platFailOn(host);
    unsigned long long perCluster = volume.f_frsize / sectorSize;
    unsigned long long available = volume.f_bavail;
    unsigned long long all = volume.f_blocks;
    if (perCluster == 0) { // blocks smaller than a sector
        available = available * volume.f_frsize / sectorSize;
        all = all * volume.f_frsize / sectorSize;
        perCluster = 1;
    }
    while (all > UINT_MAX || available > UINT_MAX) {
        perCluster *= 2;
        available /= 2;
        all /= 2;
    }
    *sectorsPerCluster = static_cast<DWORD>(perCluster);
    *bytesPerSector = sectorSize;
    *freeClusters = static_cast<DWORD>(available);
    *allClusters = static_cast<DWORD>(all);
    return TRUE;
}
