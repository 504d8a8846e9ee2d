#include <qel/platform/filecopy.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/sendfile.h>

#include <qel/platform/errortable.h>

namespace {

constexpr std::size_t kernelStep = 1U << 30;
constexpr std::size_t blockSize = 64 * 1024;
constexpr mode_t permissionBits = 0777;

bool writeAll(int target, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = platRetry([&] { return write(target, data, size); });
        if (count < 0)
            return false;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Copies from the current positions to the end of `source` by reading and writing.
bool copyByBlocks(int source, int target)
{
    char block[blockSize];
    for (;;) {
        const ssize_t count = platRetry([&] { return read(source, block, sizeof block); });
        if (count <= 0)
            return count == 0;
        if (!writeAll(target, block, static_cast<std::size_t>(count)))
            return false;
    }
}

/// Whether an error of a kernel copy says that these two files cannot be copied that way.
bool isUnsupported(int error)
{
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM ||
           error == EBADF;
}

enum class Copied { all, fewer, failed };

/// Copies `size` bytes from the current positions inside the kernel; `fewer` when it gave up before.
Copied copyInKernel(int source, int target, off_t size)
{
    bool byRange = true;
    while (size > 0) {
        const std::size_t step =
            static_cast<std::size_t>(size) < kernelStep ? static_cast<std::size_t>(size) : kernelStep;
        const ssize_t count = platRetry([&] {
            return byRange ? copy_file_range(source, nullptr, target, nullptr, step, 0)
                           : sendfile(target, source, nullptr, step);
        });
        if (count > 0)
            size -= count;
        else if (count < 0 && !isUnsupported(errno))
            return Copied::failed;
        else if (byRange)
            byRange = false;
        else
            return Copied::fewer;
    }
    return Copied::all;
}

/// Copies the runs of data of a file that has holes; the holes stay.
bool copySparse(int source, int target, off_t size)
{
    off_t data = 0;
    while (data < size) {
        data = lseek(source, data, SEEK_DATA);
        if (data < 0) {
            if (errno != ENXIO)
                return false;
            break; // a hole up to the end
        }
        off_t hole = lseek(source, data, SEEK_HOLE);
        if (hole < 0)
            return false;
        if (hole > size)
            hole = size;
        if (lseek(source, data, SEEK_SET) < 0 || lseek(target, data, SEEK_SET) < 0)
            return false;
        switch (copyInKernel(source, target, hole - data)) {
        case Copied::failed:
            return false;
        case Copied::fewer:
            return copyByBlocks(source, target);
        case Copied::all:
            break;
        }
        data = hole;
    }
    return ftruncate(target, size) == 0;
}

bool copyData(int source, const struct stat& status, int target)
{
    constexpr off_t blocksUnit = 512; // of st_blocks
    if (status.st_blocks * blocksUnit < status.st_size && lseek(source, 0, SEEK_HOLE) >= 0)
        return copySparse(source, target, status.st_size);
    if (lseek(source, 0, SEEK_SET) < 0)
        return false;
    // Files of the kernel's own (/proc) say that they are empty and are not.
    const Copied copied = status.st_size > 0 ? copyInKernel(source, target, status.st_size) : Copied::fewer;
    return copied == Copied::all || (copied == Copied::fewer && copyByBlocks(source, target));
}

} // namespace

int platOpenAt(int folder, const char* name, int flags, unsigned mode)
{
    return platRetry([&] { return openat(folder, name, flags | O_CLOEXEC, mode); });
}

int platOpenRegular(int folder, const char* name, int flags, unsigned mode, struct stat& status)
{
    // O_NONBLOCK: a pipe without a peer is not waited on.
    platDescriptor file(platOpenAt(folder, name, flags | O_NONBLOCK | O_NOCTTY, mode));
    if (!file || fstat(file.get(), &status) != 0) {
        if (errno == ENXIO)
            errno = EACCES; // a socket, or a pipe nobody reads
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EACCES;
        return -1;
    }
    return file.release();
}

bool platCopyContents(int source, const struct stat& status, int folder, const char* name)
{
    // Nobody else may read it before it has the mode of the source.
    platDescriptor target(platOpenAt(folder, name, O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR));
    if (!target)
        return false;
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    if (copyData(source, status, target.get()) &&
        fchmod(target.get(), status.st_mode & permissionBits) == 0 && futimens(target.get(), times) == 0 &&
        close(target.release()) == 0)
        return true;
    const int error = errno;
    unlinkat(folder, name, 0);
    errno = error;
    return false;
}
