#include "btkfilecopy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <qel/base/btkretry.h>

namespace {

constexpr std::size_t kernelStep = 1U << 30;
constexpr std::size_t watchedStep = 8U << 20;
constexpr std::size_t blockSize = 64 * 1024;

/// Whether an error of a kernel copy means that these two files cannot be copied that way.
bool isUnsupported(int error)
{
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM ||
           error == EBADF;
}

enum class Copied { all, fewer, failed };

/// Copies the contents of one open file to another.
class ContentsCopy
{
public:
    ContentsCopy(int from, int to, btkCopyWatcher* told) : source(from), target(to), watcher(told) {}

    bool Run(const struct stat& status)
    {
        constexpr off_t blocksUnit = 512; // of st_blocks
        if (status.st_blocks * blocksUnit < status.st_size && lseek(source, 0, SEEK_HOLE) >= 0)
            return copySparse(status.st_size);
        if (lseek(source, 0, SEEK_SET) < 0)
            return false;
        // Kernel files (/proc) report size 0 but are not empty.
        const Copied copied = status.st_size > 0 ? copyInKernel(status.st_size) : Copied::fewer;
        return copied == Copied::all || (copied == Copied::fewer && copyByBlocks());
    }

private:
    /// False when the watcher ends the copy.
    bool tell(off_t size) const
    {
        if (watcher == nullptr || size == 0 || watcher->Advance(size))
            return true;
        errno = ECANCELED;
        return false;
    }

    /// Copies `size` bytes from the current positions inside the kernel; `fewer` when it stopped before.
    Copied copyInKernel(off_t size) const
    {
        const std::size_t longest = watcher == nullptr ? kernelStep : watchedStep;
        bool byRange = true;
        while (size > 0) {
            const std::size_t step = std::min(static_cast<std::size_t>(size), longest);
            const ssize_t count = btkRetry([&] {
                return byRange ? copy_file_range(source, nullptr, target, nullptr, step, 0)
                               : sendfile(target, source, nullptr, step);
            });
            if (count > 0) {
                size -= count;
                if (!tell(count))
                    return Copied::failed;
            } else if (count < 0 && !isUnsupported(errno)) {
                return Copied::failed;
            } else if (byRange) {
                byRange = false;
            } else {
                return Copied::fewer;
            }
        }
        return Copied::all;
    }

    /// Copies from the current positions to the end of the source by read and write calls.
    bool copyByBlocks() const
    {
        char block[blockSize];
        for (;;) {
            const ssize_t count = btkRetry([&] { return read(source, block, sizeof block); });
            if (count <= 0)
                return count == 0;
            const auto size = static_cast<std::size_t>(count);
            if (btkWrite(target, block, size) < size || !tell(count))
                return false;
        }
    }

    /// Copies the data extents of a sparse file; the holes stay.
    bool copySparse(off_t size) const
    {
        off_t data = 0;
        while (data < size) {
            const off_t before = data;
            data = lseek(source, data, SEEK_DATA);
            if (data < 0 && errno != ENXIO)
                return false;
            const bool isLast = data < 0; // a hole up to the end
            if (!tell((isLast ? size : std::min(data, size)) - before))
                return false;
            if (isLast)
                break;
            const off_t hole = std::min(lseek(source, data, SEEK_HOLE), size);
            if (hole < 0)
                return false;
            if (lseek(source, data, SEEK_SET) < 0 || lseek(target, data, SEEK_SET) < 0)
                return false;
            switch (copyInKernel(hole - data)) {
            case Copied::failed:
                return false;
            case Copied::fewer:
                return copyByBlocks();
            case Copied::all:
                break;
            }
            data = hole;
        }
        return ftruncate(target, size) == 0;
    }

    int source, target;
    btkCopyWatcher* watcher; // null: none
};

} // namespace

int btkOpenAt(int folder, const char* name, int flags, unsigned mode)
{
    return btkRetry([&] { return openat(folder, name, flags | O_CLOEXEC, mode); });
}

int btkOpenRegular(int folder, const char* name, int flags, unsigned mode, struct stat& status)
{
    // O_NONBLOCK: opening a pipe without a peer does not block.
    btkFd file(btkOpenAt(folder, name, flags | O_NONBLOCK | O_NOCTTY, mode));
    if (!file || fstat(file.Get(), &status) != 0) {
        if (errno == ENXIO)
            errno = EACCES; // a socket, or a pipe without a reader
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EACCES;
        return -1;
    }
    return file.Release();
}

btkFd btkOpenFolder(const char* path)
{
    return btkFd(btkOpenAt(AT_FDCWD, path, O_RDONLY | O_DIRECTORY));
}

bool btkReadRegular(int folder, const char* name, std::string& content, std::size_t limit)
{
    struct stat status;
    const btkFd file(btkOpenRegular(folder, name, O_RDONLY | O_NOFOLLOW, 0, status));
    if (!file)
        return false;
    std::string bytes;
    char block[blockSize];
    std::ptrdiff_t count = 0;
    while (bytes.size() <= limit && (count = btkRead(file.Get(), block, sizeof block)) > 0)
        bytes.append(block, static_cast<std::size_t>(count));
    if (bytes.size() > limit)
        errno = EFBIG;
    if (count < 0 || bytes.size() > limit)
        return false;
    content = std::move(bytes);
    return true;
}

bool btkCopyContents(int source, const struct stat& status, int target, btkCopyWatcher* watcher)
{
    return ContentsCopy(source, target, watcher).Run(status);
}
