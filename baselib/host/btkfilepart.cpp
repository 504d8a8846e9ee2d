#include "btkfilepart.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <qel/base/btkretry.h>
#include <qel/base/btksystem.h>

namespace {

// Copies within this process by the kernel: not interrupted by signals, and if the file of `to` has been
// truncated, an error instead of SIGBUS. `from` lies in one page.
//
// First copies the first and the last byte onto themselves. If that fails, nothing has changed; otherwise
// both pages are present and writable, so that the copy cannot block, and so cannot be interrupted part way.
bool copyByKernel(char* to, char* from, std::size_t size)
{
    char* const last = to + size - 1;
    const iovec target[] = {{to, 1}, {last, 1}, {to, size}};
    const iovec source[] = {{to, 1}, {last, 1}, {from, size}};
    return process_vm_readv(btkProcessNumber(), target, 3, source, 3, 0) ==
           static_cast<std::ptrdiff_t>(size + 2);
}

struct flock Describe(short type, long long first, long long count)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = first;
    lock.l_len = count;
    return lock;
}

short typeOf(btkRangeLock::Kind kind)
{
    return kind == btkRangeLock::Exclusive ? F_WRLCK : F_RDLCK;
}

bool take(const struct stat& status, btkFileState& state)
{
    state = {status.st_dev, status.st_ino, status.st_size, status.st_nlink > 0, S_ISREG(status.st_mode)};
    return true;
}

} // namespace

bool btkSetFileSize(btkHandle handle, long long size)
{
    return btkRetry([&] { return ftruncate(handle, size); }) == 0;
}

bool btkGetFileState(btkHandle handle, btkFileState& state)
{
    struct stat status;
    return fstat(handle, &status) == 0 && take(status, state);
}

bool btkGetFileState(const char* path, btkFileState& state)
{
    struct stat status;
    return stat(path, &status) == 0 && take(status, state);
}

bool btkOpenAnew(btkHandle handle)
{
    const int mode = fcntl(handle, F_GETFL);
    const std::string name = "/proc/self/fd/" + std::to_string(handle);
    const btkFd opened(mode < 0 ? -1 : open(name.c_str(), (mode & O_ACCMODE) | O_CLOEXEC | O_NOCTTY));
    return opened && dup3(opened.Get(), handle, O_CLOEXEC) == handle;
}

// ---- parts that are rewritten atomically

bool btkPartWriter::LiesAcross(long long position, std::size_t size)
{
    // The smallest page: real pages are as large or a multiple.
    constexpr long long page = 4096;
    return size > 0 && position / page != (position + static_cast<long long>(size) - 1) / page;
}

// A write proceeds page by page, and a killed process may stop between two of them. One copy into mapped
// pages does not.
std::size_t btkPartWriter::Write(btkHandle handle, const void* from, std::size_t size, long long position,
                                 Notice notice)
{
    if (size > greatestWhole || !LiesAcross(position, size) ||
        !Map(handle, position + static_cast<long long>(size)))
        return btkWriteAt(handle, from, size, position);
    alignas(greatestWhole) char part[greatestWhole];
    std::memcpy(part, from, size);
    if (copyByKernel(pages + position, part, size)) {
        MakeKnown(handle, notice);
        return size;
    }
    Forget();
    return btkWriteAt(handle, from, size, position);
}

// Unlike a write, a store into mapped pages notifies no watcher.
void btkPartWriter::MakeKnown(btkHandle handle, Notice notice)
{
    constexpr btkTimeval pause(1, 0);
    const btkTimeval now = btkTimeval::Now();
    if (notice == Quietly && madeKnown <= now && now - madeKnown < pause)
        return;
    madeKnown = now;
    futimens(handle, nullptr);
}

// Maps the file if it extends to `end`: a mapping does not extend a file.
bool btkPartWriter::Map(btkHandle handle, long long end)
{
    if (end <= mapped)
        return true;
    const long long size = btkGetFileSize(handle);
    if (end > size)
        return false;
    Forget();
    void* const got =
        mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0);
    if (got == MAP_FAILED)
        return false;
    pages = static_cast<char*>(got);
    mapped = size;
    return true;
}

void btkPartWriter::Forget()
{
    if (mapped > 0)
        munmap(pages, static_cast<std::size_t>(mapped));
    mapped = 0;
}

// ---- locks

bool btkPatience::Rest()
{
    constexpr int atOnce = 20, often = 200;
    constexpr timespec nap = {0, 50000}, longNap = {0, 2000000};
    const btkTimeval now = btkTimeval::Now();
    if (rests == 0)
        end = now + limit;
    if (now >= end)
        return false;
    if (rests++ >= atOnce)
        nanosleep(rests < often ? &nap : &longNap, nullptr);
    return true;
}

btkRangeLock::Answer btkRangeLock::Try(Kind kind)
{
    struct flock lock = Describe(typeOf(kind), first, count);
    if (fcntl(handle, F_OFD_SETLK, &lock) == 0) {
        held = true;
        return Held;
    }
    return errno == EAGAIN || errno == EACCES ? Busy : Unsupported;
}

btkRangeLock::Answer btkRangeLock::Wait(Kind kind, btkTimeval limit)
{
    if (limit.IsForever()) {
        struct flock lock = Describe(typeOf(kind), first, count);
        held = btkRetry([&] { return fcntl(handle, F_OFD_SETLKW, &lock); }) == 0;
        return held ? Held : Unsupported;
    }
    btkPatience patience(limit);
    Answer answer = Busy;
    do
        answer = Try(kind);
    while (answer == Busy && patience.Rest());
    return answer;
}

bool btkRangeLock::IsBusy(Kind kind) const
{
    struct flock lock = Describe(typeOf(kind), first, count);
    return fcntl(handle, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void btkRangeLock::Release()
{
    struct flock lock = Describe(F_UNLCK, first, count);
    if (held)
        fcntl(handle, F_OFD_SETLK, &lock);
    held = false;
}
