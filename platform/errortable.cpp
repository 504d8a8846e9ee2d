#include <qel/platform/errortable.h>

#include <cerrno>

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
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EAGAIN, ERROR_LOCK_VIOLATION},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EMLINK, ERROR_TOO_MANY_LINKS},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EBADF, ERROR_INVALID_HANDLE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EPIPE, ERROR_BROKEN_PIPE},
    {EINTR, ERROR_SIGNAL_PENDING},
    {ECANCELED, ERROR_OPERATION_ABORTED},
    {ENXIO, ERROR_NOT_READY},
    {ENODEV, ERROR_NOT_READY},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_NOT_SUPPORTED},
};

/// Whether the directory that holds the last name of `hostPath` is there.
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

bool platInterrupted()
{
    return errno == EINTR;
}
