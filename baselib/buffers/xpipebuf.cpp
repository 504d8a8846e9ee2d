#include "xpipebuf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t gatheredSize = 4096;

} // namespace

bool xoutputbuf::SetGathers(bool gathers)
{
    if (gathers == (area != nullptr))
        return true;
    const bool written = pubsync() == 0;
    area = gathers ? std::make_unique_for_overwrite<char[]>(gatheredSize) : nullptr;
    setp(area.get(), gathers ? area.get() + gatheredSize : nullptr);
    return written;
}

bool xoutputbuf::Finish()
{
    return pubsync() == 0 || errno == EPIPE;
}

// Drops bytes that cannot be written.
int xoutputbuf::sync()
{
    const std::size_t count = Gathered();
    if (count == 0)
        return 0;
    const std::size_t written = btkWrite(target, pbase(), count);
    setp(pbase(), epptr());
    return written == count ? 0 : -1;
}

std::streamsize xoutputbuf::xsputn(const char* from, std::streamsize count)
{
    const std::size_t size = count < 0 ? 0 : static_cast<std::size_t>(count);
    if (size > static_cast<std::size_t>(epptr() - pptr())) {
        if (pubsync() != 0)
            return 0;
        if (area == nullptr || size >= gatheredSize)
            return static_cast<std::streamsize>(btkWrite(target, from, size));
    }
    if (size > 0)
        std::memcpy(pptr(), from, size);
    pbump(static_cast<int>(size));
    return static_cast<std::streamsize>(size);
}

// ---- trying

std::streambuf* xoutputbuf::OnGetTryOBuf()
{
    bool broken = false;
    const std::size_t room = btkCountWritable(target, broken), gathered = Gathered();
    triedRoom = std::max(room - std::min(room, gathered), static_cast<std::size_t>(epptr() - pptr()));
    const std::size_t size = btkGetPipeSize(target);
    tryArea.SetRoom(triedRoom, broken, size == SIZE_MAX ? size : size - std::min(size, gathered));
    return &tryArea;
}

void xoutputbuf::OnFreeTryOBuf()
{
    shortRoom = IsTryExhausted() ? triedRoom : 0;
    if (shortRoom > 0)
        NoteShort();
}

// The descriptor is ready as soon as there is some room; it does not show that the room grows.
btkBaseEvent::State xoutputbuf::OnAskOutput()
{
    bool broken = false;
    if (shortRoom > 0 && btkCountWritable(target, broken) <= shortRoom + Gathered() && !broken)
        return btkBaseEvent::AskAgain;
    shortRoom = 0;
    return btkBaseEvent::Ask;
}
