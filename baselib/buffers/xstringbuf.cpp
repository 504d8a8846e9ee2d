#include "xstringbuf.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

// A larger block is released when little of it is used.
constexpr std::size_t keptCapacity = 65536;

} // namespace

xstringbuf::xstringbuf(const char* text, std::size_t size) : readOnly(true)
{
    Reallocate(size);
    char* const start = storage.get();
    if (size > 0)
        std::memcpy(start, text, size);
    setg(start, start, start + size);
}

void xstringbuf::Reallocate(std::size_t size)
{
    char* const moved = static_cast<char*>(std::realloc(storage.get(), size > 0 ? size : 1));
    if (moved == nullptr)
        throw std::bad_alloc();
    [[maybe_unused]] const char* const old = storage.release();
    storage.reset(moved);
    capacity = size;
}

std::size_t xstringbuf::GetSize() const
{
    return readOnly ? capacity : static_cast<std::size_t>(pptr() - storage.get()) - forgotten;
}

void xstringbuf::DiscardRead()
{
    if (readOnly)
        return;
    forgotten = static_cast<std::size_t>(gptr() - storage.get());
    const std::size_t left = GetSize();
    // Unread bytes move to the front once that costs no more than it frees.
    if (left > 0 && left <= forgotten)
        std::memcpy(storage.get(), gptr(), left);
    if (left <= forgotten)
        forgotten = 0;
    Place(0, left);
    if (forgotten == 0 && capacity > keptCapacity && left < capacity / 4) {
        Reallocate(std::max(left, keptCapacity));
        Place(0, left);
    }
}

// Sets the areas for the storage: `size` bytes not discarded, of which `read` have been read.
void xstringbuf::Place(std::size_t read, std::size_t size)
{
    char* const start = storage.get() + forgotten;
    setg(start, start + read, start + size);
    setp(start + size, storage.get() + capacity);
}

// Makes room for `count` bytes after the written ones.
void xstringbuf::Grow(std::size_t count)
{
    const std::size_t size = GetSize(), used = forgotten + size;
    if (capacity - used >= count)
        return;
    if (count > static_cast<std::size_t>(-1) / 4 - used)
        throw std::bad_alloc();
    const std::size_t read = static_cast<std::size_t>(gptr() - eback());
    Reallocate(std::max({std::size_t(256), capacity * 2, used + count}));
    Place(read, size);
}

// Extends the get area to the end of the written bytes. True when there are unread bytes.
bool xstringbuf::ShowWritten()
{
    if (!readOnly && egptr() != pptr())
        setg(eback(), gptr(), pptr());
    return gptr() != egptr();
}

std::size_t xstringbuf::CountReadable()
{
    ShowWritten();
    return static_cast<std::size_t>(egptr() - gptr());
}

xstringbuf::int_type xstringbuf::underflow()
{
    return ShowWritten() ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

std::streamsize xstringbuf::xsputn(const char* from, std::streamsize count)
{
    if (readOnly || count <= 0)
        return 0;
    Grow(static_cast<std::size_t>(count));
    std::memcpy(pptr(), from, static_cast<std::size_t>(count));
    setp(pptr() + count, epptr());
    return count;
}

std::streamsize xstringbuf::showmanyc()
{
    return ShowWritten() ? egptr() - gptr() : -1;
}

std::streambuf* xstringbuf::OnGetTryIBuf()
{
    ShowWritten();
    SetEofReached(); // nothing arrives during a read
    view.TakeBuf(gptr(), static_cast<std::size_t>(egptr() - gptr()));
    return &view;
}
