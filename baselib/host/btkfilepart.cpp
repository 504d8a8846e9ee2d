#include <qel/base/btkfilepart.h>

#include <qel/base/btkpipe.h>
#include <qel/base/btkretry.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What a pipe surely takes at once.
constexpr std::size_t greatestWhole = 4096;

// Whether the bytes may lie in two pages: no host has smaller ones.
bool CrossesPage(long long position, std::size_t size)
{
    constexpr long long page = 4096;
    return size > 0 && position / page != (position + static_cast<long long>(size) - 1) / page;
}

// A write goes page by page, and a killed process leaves it between two of them. A copy that the kernel makes
// into mapped pages is one step; unlike a copy of our own it ends with an error when the file has been cut,
// and with no signal. What is to be copied passes through a pipe for that.
bool CopyIntoPages(btkHandle handle, const void* from, std::size_t size, long long position)
{
    const long long page = sysconf(_SC_PAGESIZE);
    const long long start = position / page * page;
    const std::size_t before = static_cast<std::size_t>(position - start);
    void* const pages = mmap(nullptr, before + size, PROT_READ | PROT_WRITE, MAP_SHARED, handle, start);
    if (pages == MAP_FAILED)
        return false;
    const std::ptrdiff_t wanted = static_cast<std::ptrdiff_t>(size);
    btkOutputPipe output;
    btkInputPipe input;
    // The pages are there and writable before the copy begins, so that it has nothing to wait for.
    const bool copied = madvise(pages, before + size, MADV_POPULATE_WRITE) == 0 &&
                        btkAnonymousPipe::Create(output, input) &&
                        write(output.Get(), from, size) == wanted &&
                        read(input.Get(), static_cast<char*>(pages) + before, size) == wanted;
    munmap(pages, before + size);
    return copied;
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

short TypeOf(btkRangeLock::Kind kind)
{
    return kind == btkRangeLock::Exclusive ? F_WRLCK : F_RDLCK;
}

bool Take(const struct stat& status, btkFileState& state)
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
    return fstat(handle, &status) == 0 && Take(status, state);
}

bool btkGetFileState(const char* path, btkFileState& state)
{
    struct stat status;
    return stat(path, &status) == 0 && Take(status, state);
}

bool btkOpenAnew(btkHandle handle)
{
    const int mode = fcntl(handle, F_GETFL);
    const std::string name = "/proc/self/fd/" + std::to_string(handle);
    const btkFd opened(mode < 0 ? -1 : open(name.c_str(), (mode & O_ACCMODE) | O_CLOEXEC | O_NOCTTY));
    return opened && dup3(opened.Get(), handle, O_CLOEXEC) == handle;
}

std::size_t btkWriteWholeAt(btkHandle handle, const void* from, std::size_t size, long long position)
{
    if (size <= greatestWhole && CrossesPage(position, size) &&
        position + static_cast<long long>(size) <= btkGetFileSize(handle) && // pages make no file longer
        CopyIntoPages(handle, from, size, position))
        return size;
    return btkWriteAt(handle, from, size, position);
}

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
    struct flock lock = Describe(TypeOf(kind), first, count);
    if (fcntl(handle, F_OFD_SETLK, &lock) == 0) {
        held = true;
        return Held;
    }
    return errno == EAGAIN || errno == EACCES ? Busy : Unsupported;
}

btkRangeLock::Answer btkRangeLock::Wait(Kind kind, btkTimeval limit)
{
    if (limit.IsForever()) {
        struct flock lock = Describe(TypeOf(kind), first, count);
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
    struct flock lock = Describe(TypeOf(kind), first, count);
    return fcntl(handle, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void btkRangeLock::Release()
{
    struct flock lock = Describe(F_UNLCK, first, count);
    if (held)
        fcntl(handle, F_OFD_SETLK, &lock);
    held = false;
}
