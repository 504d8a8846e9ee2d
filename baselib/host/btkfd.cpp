#include "btkfd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btkretry.h>
#include <qel/base/btktrace.h>

#include "btkpoll_p.h"

namespace {

short pollOne(btkHandle handle, short events, btkTimeval limit)
{
    pollfd asked = {handle, events, 0};
    return btkPoll(&asked, 1, limit) < 0 ? POLLERR : asked.revents;
}

// Makes a call that transfers bytes, after waiting if the descriptor is non-blocking.
template<typename Call>
std::ptrdiff_t transfer(btkHandle handle, short events, Call call)
{
    for (;;) {
        const std::ptrdiff_t answer = btkRetry(call);
        if (answer >= 0 || errno != EAGAIN)
            return answer;
        pollOne(handle, events, btkTimeval::Forever());
    }
}

// Repeats `call(done)`, which transfers some bytes, until `size` are done, a call returns 0, or a call fails.
template<typename Call>
std::size_t transferAll(btkHandle handle, short events, std::size_t size, Call call)
{
    std::size_t done = 0;
    while (done < size) {
        const std::ptrdiff_t answer = transfer(handle, events, [&] { return call(done); });
        if (answer <= 0)
            break;
        done += static_cast<std::size_t>(answer);
    }
    return done;
}

sigset_t justSigPipe()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

} // namespace

void btkFd::Reset(btkHandle owned)
{
    if (handle >= 0) {
        const int kept = errno;
        // Never repeated: the descriptor is closed even when the call was interrupted.
        close(handle);
        errno = kept;
    }
    handle = owned;
}

btkFd btkFd::Duplicate() const
{
    return btkFd(fcntl(handle, F_DUPFD_CLOEXEC, 0));
}

std::ptrdiff_t btkRead(btkHandle handle, void* to, std::size_t size)
{
    const std::ptrdiff_t count = transfer(handle, POLLIN, [&] { return read(handle, to, size); });
    if (btkTraces(btkTraceArea::streams, btkLevel::debug))
        btkTrace(btkTraceArea::streams, btkLevel::debug, "read %td of %zu bytes from %d", count, size,
                 handle);
    return count;
}

std::ptrdiff_t btkReadAt(btkHandle handle, void* to, std::size_t size, long long position)
{
    std::ptrdiff_t latest = 0;
    const std::size_t done = transferAll(handle, POLLIN, size, [&](std::size_t at) {
        return latest = pread(handle, static_cast<char*>(to) + at, size - at,
                              position + static_cast<long long>(at));
    });
    return done == 0 && latest < 0 ? -1 : static_cast<std::ptrdiff_t>(done);
}

std::size_t btkWrite(btkHandle handle, const void* from, std::size_t size)
{
    btkNoSigPipe guard;
    const std::size_t done = transferAll(handle, POLLOUT, size, [&](std::size_t at) {
        return write(handle, static_cast<const char*>(from) + at, size - at);
    });
    if (done < size && errno == EPIPE)
        guard.Raised();
    if (btkTraces(btkTraceArea::streams, btkLevel::debug))
        btkTrace(btkTraceArea::streams, btkLevel::debug, "wrote %zu of %zu bytes to %d", done, size, handle);
    return done;
}

std::ptrdiff_t btkTryWrite(btkHandle handle, const void* from, std::size_t size)
{
    const ssize_t sent = btkRetry([&] { return send(handle, from, size, MSG_DONTWAIT | MSG_NOSIGNAL); });
    if (sent >= 0 || errno == EAGAIN)
        return std::max<std::ptrdiff_t>(sent, 0);
    if (errno != ENOTSOCK)
        return -1;
    bool broken = false;
    const std::size_t room = btkCountWritable(handle, broken);
    if (broken)
        errno = EPIPE;
    if (broken || room == 0)
        return broken ? -1 : 0;
    const std::size_t written = btkWrite(handle, from, std::min(size, room));
    return written > 0 ? static_cast<std::ptrdiff_t>(written) : -1;
}

std::size_t btkWriteAt(btkHandle handle, const void* from, std::size_t size, long long position)
{
    return transferAll(handle, POLLOUT, size, [&](std::size_t at) {
        return pwrite(handle, static_cast<const char*>(from) + at, size - at,
                      position + static_cast<long long>(at));
    });
}

btkFd btkOpenFile(const char* path, int mode)
{
    int flags = (mode & btkOpenWrite) == 0 ? O_RDONLY : (mode & btkOpenRead) == 0 ? O_WRONLY : O_RDWR;
    flags |= ((mode & btkOpenCreate) != 0 ? O_CREAT : 0) | ((mode & btkOpenEmpty) != 0 ? O_TRUNC : 0);
    flags |= O_CLOEXEC | O_NOCTTY;
    btkFd opened(btkRetry([&] { return open(path, flags, 0666); }));
    struct stat status;
    if (opened && fstat(opened.Get(), &status) == 0 && S_ISDIR(status.st_mode)) {
        opened.Reset();
        errno = EISDIR;
    }
    if (btkTraces(btkTraceArea::files, btkLevel::info)) {
        if (opened)
            btkTrace(btkTraceArea::files, btkLevel::info, "opened %s as %d", path, opened.Get());
        else
            btkTrace(btkTraceArea::files, btkLevel::info, "cannot open %s: ", path);
    }
    return opened;
}

long long btkGetFileSize(btkHandle handle)
{
    struct stat status;
    return fstat(handle, &status) == 0 ? status.st_size : -1;
}

bool btkHasPositions(btkHandle handle)
{
    return lseek(handle, 0, SEEK_CUR) >= 0;
}

bool btkSetPosition(btkHandle handle, long long position)
{
    return lseek(handle, position, SEEK_SET) == position;
}

bool btkIsTerminal(btkHandle handle)
{
    return isatty(handle) == 1;
}

std::ptrdiff_t btkMove(const btkPlace& from, const btkPlace& to)
{
    // The pages of a file must not be spliced into a pipe: they would change with the file until they are
    // read.
    if (from.position != nullptr && to.position == nullptr)
        return -1;
    constexpr std::size_t most = 1 << 30;
    off64_t source = from.position == nullptr ? 0 : *from.position;
    off64_t target = to.position == nullptr ? 0 : *to.position;
    off64_t* const targetPlace = to.position == nullptr ? nullptr : &target;
    btkNoSigPipe guard;
    const std::ptrdiff_t moved = transfer(to.handle, POLLOUT, [&] {
        return from.position != nullptr
                   ? copy_file_range(from.handle, &source, to.handle, targetPlace, most, 0)
                   : splice(from.handle, nullptr, to.handle, targetPlace, most, 0);
    });
    if (moved < 0 && errno == EPIPE)
        guard.Raised();
    if (moved > 0 && from.position != nullptr)
        *from.position = source;
    if (moved > 0 && to.position != nullptr)
        *to.position = target;
    return moved;
}

std::size_t btkCountReadable(btkHandle handle)
{
    int count = 0;
    return ioctl(handle, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool btkIsReadable(btkHandle handle, btkTimeval limit)
{
    return pollOne(handle, POLLIN, limit) != 0;
}

std::size_t btkCountWritable(btkHandle handle, bool& broken)
{
    const short ready = pollOne(handle, POLLOUT, {});
    broken = (ready & (POLLERR | POLLNVAL)) != 0;
    if (broken || (ready & POLLOUT) == 0)
        return 0;
    const std::size_t capacity = btkGetPipeSize(handle);
    // A ready pipe has at least one free page.
    return capacity == SIZE_MAX || btkCountReadable(handle) == 0
               ? capacity
               : static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::size_t btkGetPipeSize(btkHandle handle)
{
    const int capacity = fcntl(handle, F_GETPIPE_SZ);
    return capacity < 0 ? SIZE_MAX : static_cast<std::size_t>(capacity);
}

bool btkIsSameFile(btkHandle a, btkHandle b)
{
    struct stat first, second;
    return fstat(a, &first) == 0 && fstat(b, &second) == 0 && S_ISREG(first.st_mode) &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

btkNoSigPipe::btkNoSigPipe()
{
    const sigset_t set = justSigPipe();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &set, &before);
    blocked = sigismember(&before, SIGPIPE) == 0;
    sigset_t pending;
    // A signal can be pending only if it was blocked before.
    wasPending = !blocked && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

btkNoSigPipe::~btkNoSigPipe()
{
    const int kept = errno;
    const sigset_t set = justSigPipe();
    if (raised && !wasPending) {
        const timespec now = {};
        btkRetry([&] { return sigtimedwait(&set, nullptr, &now); });
    }
    if (blocked)
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    errno = kept;
}
