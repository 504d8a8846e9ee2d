#include "xfilebuf.h"

#include <algorithm>
#include <cstring>

namespace {

// Read-ahead sizes: enough for a few values after a seek, more from the start of a file, and growing.
constexpr std::size_t readAheadAfterSeek = 256;
constexpr std::size_t readAheadAtStart = 4096;
constexpr std::size_t readAheadGrowth = 4;

} // namespace

xfilebuf* xfilebuf::Open(const char* path, Mode mode)
{
    btkFd opened = btkOpenFile(path, mode == Write ? btkOpenWrite | btkOpenCreate | btkOpenEmpty : int(mode));
    return opened ? new xfilebuf(std::move(opened), mode) : nullptr;
}

xfilebuf::xfilebuf(btkFd opened, Mode wanted)
    : xinputbuf(opened.Get()), file(std::move(opened)), mode(wanted),
      hasPositions(btkHasPositions(file.Get())), readAhead(readAheadAtStart)
{
}

xfilebuf::~xfilebuf()
{
    WritePending();
}

// ---- position

long long xfilebuf::Tell() const
{
    return hasPositions ? filePosition - static_cast<long long>(Held()) + Pending() : -1;
}

long long xfilebuf::GetFileSize()
{
    if (!hasPositions)
        return -1;
    WritePending();
    const long long size = btkGetFileSize(file.Get());
    return Pending() > 0 ? std::max(size, Tell()) : size;
}

// Sets the position of the next read or write to `position`; nothing may be pending.
void xfilebuf::MoveTo(long long position)
{
    DropHeld();
    setp(nullptr, nullptr);
    pendingStart = nullptr;
    filePosition = position;
}

long long xfilebuf::Seek(long long offset, std::ios_base::seekdir from)
{
    if (!hasPositions || !WritePending())
        return -1;
    const long long base = from == std::ios_base::beg   ? 0
                           : from == std::ios_base::cur ? Tell()
                                                        : btkGetFileSize(file.Get());
    long long target = 0;
    if (base < 0 || __builtin_add_overflow(base, offset, &target) || target < 0)
        return -1;
    MoveTo(target);
    readAhead = readAheadAfterSeek;
    return target;
}

xfilebuf::pos_type xfilebuf::seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode)
{
    const bool asks = offset == 0 && from == std::ios_base::cur;
    return pos_type(off_type(asks ? Tell() : Seek(offset, from)));
}

xfilebuf::pos_type xfilebuf::seekpos(pos_type position, std::ios_base::openmode)
{
    return pos_type(off_type(Seek(off_type(position), std::ios_base::beg)));
}

// ---- reading

// Writes out pending output and continues at the position after it. False when it cannot be written or the
// file is not open for reading.
bool xfilebuf::BeginReading()
{
    if ((mode & Read) == 0)
        return false;
    if (!WritePending()) {
        SetFailed(true);
        return false;
    }
    if (pendingStart != nullptr)
        MoveTo(filePosition);
    return true;
}

std::ptrdiff_t xfilebuf::ReadSome(char* to, std::size_t size)
{
    if (!hasPositions)
        return xinputbuf::ReadSome(to, size);
    const std::ptrdiff_t count = btkReadAt(file.Get(), to, size, filePosition);
    if (count > 0)
        filePosition += count;
    return count;
}

std::size_t xfilebuf::FillSize()
{
    if (!hasPositions)
        return usualSize;
    const std::size_t size = readAhead;
    readAhead = std::min(readAhead * readAheadGrowth, usualSize);
    return size;
}

std::size_t xfilebuf::CountPending()
{
    if (!hasPositions)
        return xinputbuf::CountPending();
    const long long left = btkGetFileSize(file.Get()) - (filePosition + Pending());
    return left > 0 ? static_cast<std::size_t>(left) : 0;
}

std::size_t xfilebuf::CountReadable()
{
    const std::size_t count = xinputbuf::CountReadable();
    if (count > 0 || !hasPositions || Pending() > 0)
        return count;
    sgetc();
    return Held();
}

btkPlace xfilebuf::GetSourcePlace()
{
    const bool isThere = hasPositions && BeginReading() && Held() == 0;
    return {isThere ? file.Get() : -1, &filePosition};
}

xfilebuf::int_type xfilebuf::underflow()
{
    return BeginReading() ? xinputbuf::underflow() : traits_type::eof();
}

std::streamsize xfilebuf::xsgetn(char* to, std::streamsize count)
{
    return BeginReading() ? xinputbuf::xsgetn(to, count) : 0;
}

std::streambuf* xfilebuf::OnGetTryIBuf()
{
    if (!hasPositions)
        return xinputbuf::OnGetTryIBuf();
    BeginReading();
    SetEofReached(); // a short read of a file is its real end
    savedPosition = Tell();
    return this;
}

void xfilebuf::OnFreeTryIBuf()
{
    if (!hasPositions) {
        xinputbuf::OnFreeTryIBuf();
        return;
    }
    const long long back = Tell() - savedPosition;
    if (back <= gptr() - eback())
        setg(eback(), gptr() - back, egptr());
    else
        MoveTo(savedPosition);
}

btkBaseEvent* xfilebuf::OnGetInputEvent()
{
    return hasPositions ? new btkAlwaysEvent : xinputbuf::OnGetInputEvent();
}

// ---- writing

std::size_t xfilebuf::WriteOut(const char* from, std::size_t count)
{
    if (!hasPositions)
        return btkWrite(file.Get(), from, count);
    const std::size_t written =
        keepsWhole ? Rewrite(from, count, filePosition) : btkWriteAt(file.Get(), from, count, filePosition);
    filePosition += static_cast<long long>(written);
    return written;
}

// Output that cannot be written stays pending.
bool xfilebuf::WritePending()
{
    const std::size_t count = static_cast<std::size_t>(Pending());
    if (count == 0)
        return true;
    const std::size_t written = WriteOut(pendingStart, count);
    std::memmove(pendingStart, pendingStart + written, count - written);
    setp(pendingStart + (count - written), epptr());
    return written == count;
}

void xfilebuf::DropPending()
{
    if (pendingStart != nullptr)
        MoveTo(filePosition);
}

// False when the file is not open for writing.
bool xfilebuf::BeginWriting()
{
    if ((mode & Write) == 0)
        return false;
    if (hasPositions && pendingStart == nullptr) {
        MoveTo(Tell());
        pendingStart = GetStorage();
        setp(pendingStart, pendingStart + usualSize);
    }
    return true;
}

btkPlace xfilebuf::GetTargetPlace()
{
    const bool isThere = hasPositions && !keepsWhole && BeginWriting() && WritePending();
    return {isThere ? file.Get() : -1, &filePosition};
}

std::streamsize xfilebuf::xsputn(const char* from, std::streamsize count)
{
    if (count <= 0 || !BeginWriting())
        return 0;
    const std::size_t size = static_cast<std::size_t>(count);
    if (!hasPositions)
        return static_cast<std::streamsize>(WriteOut(from, size));
    if (size > Room() && !WritePending())
        return 0;
    if (size >= usualSize)
        return static_cast<std::streamsize>(WriteOut(from, size));
    std::memcpy(pptr(), from, size);
    setp(pptr() + size, epptr());
    return count;
}

int xfilebuf::sync()
{
    return WritePending() ? 0 : -1;
}
