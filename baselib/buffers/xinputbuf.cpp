#include "xinputbuf.h"

#include <algorithm>
#include <cstring>

char* xinputbuf::GetStorage()
{
    // Releases memory allocated for a large value once that value has been read.
    if (storage == nullptr || capacity > usualSize) {
        storage.reset();
        storage = std::make_unique_for_overwrite<char[]>(usualSize);
        capacity = usualSize;
    }
    return storage.get();
}

// Reads from the source and records whether it has ended. Returns the number of bytes.
std::size_t xinputbuf::ReadInto(char* to, std::size_t size)
{
    starvedStart = starvedEnd = nullptr;
    const std::ptrdiff_t count = ReadSome(to, size);
    SetEofReached(count <= 0 && !IsLimitPassed());
    SetFailed(count < 0 && !IsLimitPassed());
    NoteHeld();
    return count <= 0 ? 0 : static_cast<std::size_t>(count);
}

xinputbuf::int_type xinputbuf::underflow()
{
    if (gptr() == egptr()) {
        DropHeld();
        char* const start = GetStorage();
        setg(start, start, start + ReadInto(start, FillSize()));
    }
    return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

std::streamsize xinputbuf::xsgetn(char* to, std::streamsize count)
{
    std::streamsize done = 0;
    while (done < count) {
        const std::size_t wanted = static_cast<std::size_t>(count - done);
        if (Held() == 0 && wanted >= usualSize) {
            const std::size_t read = ReadInto(to + done, wanted);
            if (read == 0)
                break;
            done += static_cast<std::streamsize>(read);
            continue;
        }
        if (traits_type::eq_int_type(sgetc(), traits_type::eof()))
            break;
        const std::size_t part = std::min(wanted, Held());
        std::memcpy(to + done, gptr(), part);
        setg(eback(), gptr() + part, egptr());
        done += static_cast<std::streamsize>(part);
    }
    return done;
}

std::streamsize xinputbuf::showmanyc()
{
    const std::size_t count = CountReadable();
    return count == 0 && IsEofReached() ? -1 : static_cast<std::streamsize>(count);
}

std::streambuf* xinputbuf::OnGetTryIBuf()
{
    filled = allowed = 0;
    view.TakeBuf(gptr(), Held());
    return &view;
}

void xinputbuf::OnFreeTryIBuf()
{
    view.FreeBuf();
    const bool starved = IsTryExhausted() && !IsEofReached();
    starvedStart = starved ? gptr() : nullptr;
    starvedEnd = starved ? egptr() : nullptr;
}

// Makes room for `count` bytes after the buffered ones.
void xinputbuf::MakeRoom(std::size_t count)
{
    const std::size_t held = Held();
    const char* const end = storage.get() + capacity;
    if (storage != nullptr && static_cast<std::size_t>(end - egptr()) >= count && held > 0)
        return;
    if (held + count <= capacity) {
        if (held > 0)
            std::memmove(storage.get(), gptr(), held);
    } else {
        capacity = std::max({usualSize, capacity * 2, held + count});
        auto larger = std::make_unique_for_overwrite<char[]>(capacity);
        if (held > 0)
            std::memcpy(larger.get(), gptr(), held);
        storage = std::move(larger);
    }
    setg(storage.get(), storage.get(), storage.get() + held);
}

bool xinputbuf::OnTryUnderflow()
{
    const std::size_t pending = CountPending();
    if (pending == 0 && !IsPending())
        return false;
    // One view takes the input available when it first ran out, so that a source that never pauses does not
    // hold it forever; in parts, so that a value found complete or malformed early leaves the rest in the
    // source. A ready source without pending bytes is at its end, which may be reported at any time.
    if (filled == 0)
        allowed = pending;
    const std::size_t limit = pending > 0 ? allowed : allowed + usualSize;
    if (filled >= limit)
        return false;
    const std::size_t held = Held();
    const std::size_t part = std::min(limit - filled, std::max(held, usualSize));
    MakeRoom(part);
    const std::size_t count = ReadInto(gptr() + held, part);
    setg(eback(), gptr(), gptr() + held + count);
    filled += count;
    view.ExtendBuf(gptr(), held, held + count);
    return count > 0;
}

btkBaseEvent::State xinputbuf::OnAskInput()
{
    return Held() == 0 || IsStarved() ? btkBaseEvent::Ask : btkBaseEvent::On;
}
