#include "xstdbuf.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ext/stdio_sync_filebuf.h>
#include <iostream>
#include <stdio_ext.h>
#include <unistd.h>

#include <qel/base/thrthreading.h>
#include <qel/base/xbufaccess.h>

namespace {

std::streambuf& standardBuffer(bool isError)
{
    return isError ? *std::cerr.rdbuf() : *std::cout.rdbuf();
}

// Writes to the standard C stream behind `buffer`, if there is one and its own buffer has room, so that
// nothing is written to the descriptor.
bool fillStandard(std::streambuf& buffer, const char* from, std::size_t size)
{
    using Synchronized = __gnu_cxx::stdio_sync_filebuf<char>;
    static std::atomic<std::streambuf*> known = nullptr;
    if (&buffer != known.load(std::memory_order_relaxed)) {
        if (dynamic_cast<Synchronized*>(&buffer) == nullptr)
            return false;
        known.store(&buffer, std::memory_order_relaxed);
    }
    FILE* const file = static_cast<Synchronized&>(buffer).file();
    // The lock costs as much as the rest; one thread alone needs none.
    const bool isShared = thrIsThreaded();
    if (isShared)
        flockfile(file);
    const std::size_t room = __fbufsize(file);
    const bool filled =
        __flbf(file) == 0 && size + __fpending(file) < room && fwrite_unlocked(from, 1, size, file) == size;
    if (isShared)
        funlockfile(file);
    return filled;
}

// Calls `write` with SIGPIPE blocked for the caller.
template<typename Call>
auto withoutSignal(Call write)
{
    btkNoSigPipe guard;
    errno = 0;
    const auto result = write();
    if (errno == EPIPE)
        guard.Raised();
    return result;
}

} // namespace

std::ptrdiff_t xistdbuf::ReadSome(char* to, std::size_t size)
{
    if (!IsPending())
        withoutSignal([] { return std::cout.rdbuf()->pubsync(); });
    return xinputbuf::ReadSome(to, size);
}

xostdbuf::xostdbuf(int type) : xoutputbuf(type == 0 ? 1 : 2), isError(type != 0)
{
}

bool xistdbuf::GiveBack()
{
    if (Held() > 0 && lseek(GetHandle(), -static_cast<off_t>(Held()), SEEK_CUR) >= 0)
        DropHeld();
    return Held() == 0;
}

bool xostdbuf::FlushAll()
{
    return withoutSignal(
        [] { return std::cout.rdbuf()->pubsync() == 0 && std::cerr.rdbuf()->pubsync() == 0; });
}

std::streamsize xostdbuf::xsputn(const char* from, std::streamsize count)
{
    std::streambuf& buffer = standardBuffer(isError);
    const std::size_t size = count < 0 ? 0 : static_cast<std::size_t>(count);
    if (char* const room = xbufaccess::Reserve(buffer, size); room != nullptr && size <= INT_MAX) {
        std::memcpy(room, from, size);
        xbufaccess::Commit(buffer, static_cast<int>(size));
        return count;
    }
    if (fillStandard(buffer, from, size))
        return count;
    return withoutSignal([&] { return buffer.sputn(from, count); });
}

int xostdbuf::sync()
{
    return withoutSignal([&] { return standardBuffer(isError).pubsync(); });
}
