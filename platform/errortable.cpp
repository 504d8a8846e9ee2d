#include "errortable.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

struct ErrorRow
{
    int host;
    DWORD windows;
};

constexpr ErrorRow errors[] = {
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {EACCES, ERROR_ACCESS_DENIED},
    {EPERM, ERROR_ACCESS_DENIED},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_NOT_ENOUGH_QUOTA},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EIO, ERROR_IO_DEVICE},
    {EROFS, ERROR_WRITE_PROTECT},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {EBUSY, ERROR_BUSY},
    {EDEADLK, ERROR_SHARING_VIOLATION},
    {ETXTBSY, ERROR_USER_MAPPED_FILE},
    {EAGAIN, ERROR_LOCK_VIOLATION},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EMLINK, ERROR_TOO_MANY_LINKS},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EBADF, ERROR_INVALID_HANDLE},
    {ESTALE, ERROR_FILE_INVALID},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EPIPE, ERROR_BROKEN_PIPE},
    {EINTR, ERROR_SIGNAL_PENDING},
    {ECANCELED, ERROR_OPERATION_ABORTED},
    {ENXIO, ERROR_NOT_READY},
    {ENODEV, ERROR_INVALID_DRIVE},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_NOT_SUPPORTED},
};

struct TextRow
{
    DWORD error;
    const char* text;
};

constexpr TextRow texts[] = {
    {ERROR_SUCCESS, "success"},
    {ERROR_FILE_NOT_FOUND, "not found"},
    {ERROR_PATH_NOT_FOUND, "a directory on the way is not found"},
    {ERROR_TOO_MANY_OPEN_FILES, "too many open files"},
    {ERROR_ACCESS_DENIED, "access denied"},
    {ERROR_INVALID_HANDLE, "not open"},
    {ERROR_NOT_ENOUGH_MEMORY, "out of memory"},
    {ERROR_INVALID_DRIVE, "no such drive"},
    {ERROR_NOT_SAME_DEVICE, "on another volume"},
    {ERROR_NO_MORE_FILES, "no more files"},
    {ERROR_WRITE_PROTECT, "read-only volume"},
    {ERROR_NOT_READY, "device not ready"},
    {ERROR_GEN_FAILURE, "failed"},
    {ERROR_SHARING_VIOLATION, "in use by somebody else"},
    {ERROR_LOCK_VIOLATION, "locked by somebody else"},
    {ERROR_NOT_SUPPORTED, "not supported"},
    {ERROR_FILE_EXISTS, "exists"},
    {ERROR_INVALID_PARAMETER, "invalid argument"},
    {ERROR_BROKEN_PIPE, "broken pipe"},
    {ERROR_BUFFER_OVERFLOW, "path too long"},
    {ERROR_DISK_FULL, "disk full"},
    {ERROR_INSUFFICIENT_BUFFER, "buffer too small"},
    {ERROR_INVALID_NAME, "invalid name"},
    {ERROR_NEGATIVE_SEEK, "position before the beginning"},
    {ERROR_DIR_NOT_EMPTY, "directory not empty"},
    {ERROR_BAD_PATHNAME, "invalid path"},
    {ERROR_SIGNAL_PENDING, "interrupted"},
    {ERROR_BUSY, "busy"},
    {ERROR_ALREADY_EXISTS, "exists"},
    {ERROR_ENVVAR_NOT_FOUND, "an environment variable is not set"},
    {ERROR_FILENAME_EXCED_RANGE, "name or path too long"},
    {ERROR_FILE_TOO_LARGE, "file too large"},
    {ERROR_MORE_DATA, "more data"},
    {ERROR_NO_MORE_ITEMS, "no more items"},
    {ERROR_CANNOT_COPY, "cannot be copied onto or into itself"},
    {ERROR_DIRECTORY, "not a directory"},
    {ERROR_OPERATION_ABORTED, "ended before it was done"},
    {ERROR_FILE_INVALID, "changed by somebody else since it was opened"},
    {ERROR_KEY_DELETED, "the key has been deleted"},
    {ERROR_IO_DEVICE, "input or output error"},
    {ERROR_TOO_MANY_LINKS, "too many links"},
    {ERROR_USER_MAPPED_FILE, "a program that is being executed"},
    {ERROR_NONE_MAPPED, "unknown name"},
    {ERROR_FILE_CORRUPT, "damaged file"},
    {ERROR_UNSUPPORTED_TYPE, "of another type"},
    {ERROR_NOT_ENOUGH_QUOTA, "quota exhausted"},
    {ERROR_CANT_RESOLVE_FILENAME, "too many soft links"},
};

/// Whether the parent directory of `hostPath` exists.
bool parentExists(const std::string& hostPath)
{
    const std::size_t last = hostPath.find_last_not_of('/');
    const std::size_t slash = last == std::string::npos ? last : hostPath.rfind('/', last);
    if (slash == std::string::npos)
        return true;
    struct stat status;
    return stat(hostPath.substr(0, slash + 1).c_str(), &status) == 0;
}

} // namespace

DWORD platErrorOf(int hostError)
{
    for (const ErrorRow& row : errors)
        if (row.host == hostError)
            return row.windows;
    return ERROR_GEN_FAILURE;
}

BOOL platFail()
{
    return platFailWith(platErrorOf(errno));
}

bool platDone(bool done)
{
    if (!done)
        platFail();
    return done;
}

BOOL platFailOn(const std::string& hostPath)
{
    const int error = errno;
    if (error == ENOENT && !parentExists(hostPath))
        return platFailWith(ERROR_PATH_NOT_FOUND);
    return platFailWith(platErrorOf(error));
}

BOOL platFailWith(DWORD error)
{
    SetLastError(error);
    return FALSE;
}

unsigned int FormatMessageA(unsigned int flags, const void*, unsigned int error, unsigned int, char* buffer,
                            unsigned int size, std::va_list*)
{
    if ((flags & ~FORMAT_MESSAGE_IGNORE_INSERTS) == FORMAT_MESSAGE_FROM_SYSTEM && buffer != nullptr)
        for (const TextRow& row : texts) {
            const std::size_t length = std::strlen(row.text);
            if (row.error != error || length >= size)
                continue;
            std::memcpy(buffer, row.text, length + 1);
            return static_cast<unsigned int>(length);
        }
    return 0;
}
