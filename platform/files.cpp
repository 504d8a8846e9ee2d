#include "files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkfolder.h>
#include <qel/base/btkpath.h>
#include <qel/base/btkretry.h>
#include <qel/platform/errortable.h>

namespace {

constexpr unsigned newFileMode = 0666;
constexpr unsigned temporaryFileMode = 0600;
constexpr unsigned temporaryDirectoryMode = 0700;
constexpr long long stepsASecond = 10000000; // of a FILETIME

/// A handle is the descriptor plus one, so that neither null nor INVALID_HANDLE_VALUE is a descriptor; the
/// bits above hold the process that has locked the file, 0 for none.
static_assert(sizeof(HANDLE) == 8);

HANDLE handleOf(int descriptor, pid_t locker)
{
    return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(locker) << 32 |
                                    (static_cast<std::intptr_t>(descriptor) + 1));
}

int descriptorOf(HANDLE file)
{
    return static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::intptr_t>(file)) - 1U);
}

pid_t lockerOf(HANDLE file)
{
    return static_cast<pid_t>(reinterpret_cast<std::intptr_t>(file) >> 32);
}

/// The open flags for a disposition, or -1.
int openFlags(DWORD disposition)
{
    switch (disposition) {
    case CREATE_NEW:
        return O_CREAT | O_EXCL;
    case CREATE_ALWAYS:
        return O_CREAT | O_TRUNC;
    case OPEN_EXISTING:
        return 0;
    case OPEN_ALWAYS:
        return O_CREAT;
    default:
        return -1;
    }
}

bool statusOf(const char* path, struct stat& status)
{
    std::string host;
    if (!platDone(btkHostPath(path, host)))
        return false;
    if (stat(host.c_str(), &status) == 0)
        return true;
    platFailOn(host);
    return false;
}

DWORD attributesOf(const struct stat& status)
{
    return S_ISDIR(status.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

/// Moves without replacing, on file systems that cannot do it atomically.
int moveInSteps(const std::string& from, const std::string& to)
{
    if (link(from.c_str(), to.c_str()) == 0) {
        if (unlink(from.c_str()) == 0)
            return 0;
        const int error = errno;
        unlink(to.c_str());
        errno = error;
        return -1;
    }
    if (errno != EPERM && errno != EOPNOTSUPP)
        return -1;
    // A directory, or a file system without hard links.
    struct stat status;
    if (lstat(to.c_str(), &status) == 0) {
        errno = EEXIST;
        return -1;
    }
    return rename(from.c_str(), to.c_str());
}

/// `make` creates the node of a host path and fails, with errno set, when there is one.
template<class Make>
unsigned makeTemporary(const char* directory, const char* prefix, unsigned unique, char* name, Make make)
{
    constexpr int attempts = 1000;
    constexpr std::size_t addedLength = 8 + 4;
    if (unique != 0 || directory == nullptr || prefix == nullptr)
        return static_cast<unsigned>(platFailWith(ERROR_INVALID_PARAMETER));
    if (std::strpbrk(prefix, "/\\") != nullptr)
        return static_cast<unsigned>(platFailWith(ERROR_INVALID_NAME));
    std::string path = directory;
    if (path.empty())
        return static_cast<unsigned>(platFailWith(ERROR_DIRECTORY));
    if (path.back() != '\\' && path.back() != '/')
        path.push_back('\\');
    path.append(prefix);
    if (path.size() + addedLength >= MAX_PATH)
        return static_cast<unsigned>(platFailWith(ERROR_FILENAME_EXCED_RANGE));

    std::string host;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        std::uint32_t number = 0;
        if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number) || number == 0)
            continue;
        std::snprintf(name, MAX_PATH, "%s%08X.TMP", path.c_str(), number);
        if (!platDone(btkHostPath(name, host)))
            return 0;
        if (make(host.c_str()))
            return number;
        if (errno != EEXIST)
            return static_cast<unsigned>(platFailOn(host));
    }
    return static_cast<unsigned>(platFailWith(ERROR_FILE_EXISTS));
}

} // namespace

FILETIME platFileTime(const struct timespec& time)
{
    constexpr long long nanosecondsAStep = 100;
    long long steps;
    if (__builtin_add_overflow(time.tv_sec, platSecondsTo1970, &steps) ||
        __builtin_mul_overflow(steps, stepsASecond, &steps) ||
        __builtin_add_overflow(steps, time.tv_nsec / nanosecondsAStep, &steps))
        steps = time.tv_sec < 0 ? LLONG_MIN : LLONG_MAX;
    const auto bits = static_cast<unsigned long long>(steps);
    return {static_cast<DWORD>(bits), static_cast<DWORD>(bits >> 32)};
}

long long platSecondsOf(const FILETIME& time)
{
    const auto bits = static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    const auto steps = static_cast<long long>(bits);
    const long long down = steps % stepsASecond < 0 ? 1 : 0;
    return steps / stepsASecond - down - platSecondsTo1970;
}

HANDLE CreateFileA(const char* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD disposition,
                   DWORD flags, HANDLE)
{
    std::string host;
    const int how = openFlags(disposition);
    if (how < 0)
        platFailWith(ERROR_INVALID_PARAMETER);
    if (how < 0 || !platDone(btkHostPath(path, host)))
        return INVALID_HANDLE_VALUE;
    const bool writes = (access & GENERIC_WRITE) != 0;
    const int mode = !writes ? O_RDONLY : (access & GENERIC_READ) != 0 ? O_RDWR : O_WRONLY;
    const bool exclusive = writes && (share & FILE_SHARE_WRITE) == 0;

    // Truncate only under the lock: a file that another process is writing stays whole.
    struct stat status;
    btkFd file(btkOpenRegular(AT_FDCWD, host.c_str(), mode | (how & ~O_TRUNC), newFileMode, status));
    if (!file) {
        platFailOn(host);
        return INVALID_HANDLE_VALUE;
    }
    if (exclusive && btkRetry([&] { return flock(file.Get(), LOCK_EX | LOCK_NB); }) != 0 &&
        errno == EWOULDBLOCK) {
        platFailWith(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    if ((how & O_TRUNC) != 0 && btkRetry([&] { return ftruncate(file.Get(), 0); }) != 0) {
        platFail();
        return INVALID_HANDLE_VALUE;
    }
    if ((flags & FILE_FLAG_SEQUENTIAL_SCAN) != 0)
        posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return handleOf(file.Release(), exclusive ? getpid() : 0);
}

BOOL CloseHandle(HANDLE file)
{
    // A forked child's copy of the descriptor would keep the lock; the child itself does not unlock.
    if (file != INVALID_HANDLE_VALUE && lockerOf(file) == getpid())
        flock(descriptorOf(file), LOCK_UN);
    // Not retried after EINTR: the kernel has closed the descriptor by then.
    if (close(descriptorOf(file)) == 0 || errno == EINTR)
        return TRUE;
    return platFail();
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* done, void*)
{
    const ssize_t count = btkRetry([&] { return read(descriptorOf(file), buffer, size); });
    if (count < 0)
        return platFail();
    if (done != nullptr)
        *done = static_cast<DWORD>(count);
    return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* done, void*)
{
    const char* data = static_cast<const char*>(buffer);
    DWORD written = 0;
    bool failed = false;
    while (written < size && !failed) {
        const ssize_t count =
            btkRetry([&] { return write(descriptorOf(file), data + written, size - written); });
        if (count > 0)
            written += static_cast<DWORD>(count);
        else
            failed = true;
    }
    if (failed)
        platFail();
    if (done != nullptr)
        *done = written;
    return failed ? FALSE : TRUE;
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* position, DWORD from)
{
    static constexpr int origins[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (from >= std::size(origins))
        return platFailWith(ERROR_INVALID_PARAMETER);
    const off_t at = lseek(descriptorOf(file), distance.QuadPart, origins[from]);
    if (at < 0)
        return errno == EINVAL ? platFailWith(ERROR_NEGATIVE_SEEK) : platFail();
    if (position != nullptr)
        position->QuadPart = at;
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file)
{
    const int descriptor = descriptorOf(file);
    const off_t at = lseek(descriptor, 0, SEEK_CUR);
    if (at < 0 || btkRetry([&] { return ftruncate(descriptor, at); }) != 0)
        return platFail();
    return TRUE;
}

BOOL GetFileAttributesExA(const char* path, GET_FILEEX_INFO_LEVELS, void* data)
{
    struct stat status;
    if (!statusOf(path, status))
        return FALSE;
    const auto size = static_cast<unsigned long long>(status.st_size);
    *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data) = {
        .dwFileAttributes = attributesOf(status),
        .ftCreationTime = platFileTime(status.st_ctim),
        .ftLastAccessTime = platFileTime(status.st_atim),
        .ftLastWriteTime = platFileTime(status.st_mtim),
        .nFileSizeHigh = static_cast<DWORD>(size >> 32),
        .nFileSizeLow = static_cast<DWORD>(size),
    };
    return TRUE;
}

BOOL MoveFileExA(const char* from, const char* to, DWORD)
{
    std::string hostFrom, hostTo;
    if (!platDone(btkHostPath(from, hostFrom)) || !platDone(btkHostPath(to, hostTo)))
        return FALSE;
    int moved = renameat2(AT_FDCWD, hostFrom.c_str(), AT_FDCWD, hostTo.c_str(), RENAME_NOREPLACE);
    if (moved != 0 && (errno == EINVAL || errno == ENOSYS))
        moved = moveInSteps(hostFrom, hostTo);
    if (moved == 0)
        return TRUE;
    // A "not found" may concern either path: both numbers mean the same to callers.
    return platFailOn(hostFrom);
}

unsigned GetTempFileNameA(const char* directory, const char* prefix, unsigned unique, char* name)
{
    return makeTemporary(directory, prefix, unique, name, [](const char* host) {
        return static_cast<bool>(
            btkFd(btkOpenAt(AT_FDCWD, host, O_WRONLY | O_CREAT | O_EXCL, temporaryFileMode)));
    });
}

unsigned platMakeTempDirectory(const char* directory, const char* prefix, unsigned unique, char* name)
{
    return makeTemporary(directory, prefix, unique, name,
                         [](const char* host) { return mkdir(host, temporaryDirectoryMode) == 0; });
}
