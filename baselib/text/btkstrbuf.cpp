#include "btkstrbuf.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include <qel/base/btkutf.h>

// A buffer is one block of malloc: this object, then the text of its first form. Blocks of malloc are
// multiples of 16 bytes less 8, and the capacity is chosen accordingly.

namespace {

constexpr std::size_t sizeLimit = (std::size_t(1) << 31) - 16;

void requireSize(std::size_t size)
{
    if (size > sizeLimit)
        throw std::length_error("btkStrBuf: text too long");
}

void* requireMemory(void* memory)
{
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

/// Returns the size of the block that holds a buffer with `size` bytes of text.
std::size_t blockSize(std::size_t size)
{
    requireSize(size);
    return ((sizeof(btkStrBuf) + size + 8 + 15) & ~std::size_t(15)) - 8;
}

std::uint32_t roomIn(std::size_t block)
{
    return static_cast<std::uint32_t>(block - sizeof(btkStrBuf));
}

std::size_t boundedLength(const char* text, std::size_t most)
{
    return strnlen(text, most);
}

std::size_t boundedLength(const unsigned short* text, std::size_t most)
{
    return static_cast<std::size_t>(std::find(text, text + most, 0) - text);
}

template<typename C>
void copyText(C* to, const C* from, std::size_t length)
{
    std::memcpy(to, from, length * sizeof(C));
    to[length] = 0;
}

} // namespace

template<typename C>
C* btkStrBuf::textOf(Produced* form)
{
    return reinterpret_cast<C*>(form + 1);
}

template<typename C>
btkStrBuf* btkStrBuf::Make(std::size_t block)
{
    return new (requireMemory(std::malloc(block))) btkStrBuf(wideForm<C>, roomIn(block));
}

template<typename C>
btkStrBuf* btkStrBuf::Alloc(std::size_t size, C** text)
{
    btkStrBuf* const buffer = Make<C>(blockSize(std::max(size, sizeof(C))));
    *text = buffer->Created<C>();
    **text = 0;
    return buffer;
}

template<typename C>
btkStrBuf* btkStrBuf::Create(const C* text, std::size_t length)
{
    // Keeps the size computation below from overflowing.
    requireSize(length);
    btkStrBuf* const buffer = Make<C>(blockSize((length + 1) * sizeof(C)));
    copyText(buffer->Created<C>(), text, length);
    buffer->length = static_cast<std::uint32_t>(length);
    return buffer;
}

/// Produces form C from the first one. Null when that does not convert.
template<typename C>
btkStrBuf::Produced* btkStrBuf::produce()
{
    std::size_t size;
    if constexpr (wideForm<C>)
        size = btkMBToWCLength(Created<char>(), length);
    else
        size = btkWCToMBLength(Created<unsigned short>(), length);
    if (size == btkNoLength)
        return nullptr;
    const std::size_t bytes = (size + 1) * sizeof(C);
    requireSize(bytes);
    void* const block = requireMemory(std::malloc(sizeof(Produced) + bytes));
    Produced* const form = new (block) Produced{static_cast<std::uint32_t>(size)};
    if constexpr (wideForm<C>)
        btkMBToWC(Created<char>(), length, textOf<C>(form));
    else
        btkWCToMB(Created<unsigned short>(), length, textOf<C>(form));
    textOf<C>(form)[size] = 0;
    return form;
}

template<typename C>
btkStrBuf* btkStrBuf::Get(C** text)
{
    if (isWide == wideForm<C>) {
        *text = Created<C>();
        return this;
    }
    Produced* form = other.GetAcquire();
    if (form == nullptr) {
        Produced* const made = produce<C>();
        if (made == nullptr)
            return nullptr;
        // Another holder may have been faster: its form is kept, because it may be in use already.
        if (other.ReplaceOrdered(form, made))
            form = made, limit.Set(0);
        else
            std::free(made);
    }
    *text = textOf<C>(form);
    return this;
}

/// Moves a buffer held alone to a block with room for `size` bytes, and some spare room.
btkStrBuf* btkStrBuf::grow(std::size_t size)
{
    requireSize(size);
    const std::size_t twice = std::min(std::size_t(capacity) * 2, sizeLimit);
    const std::size_t block = blockSize(std::max(size, twice));
    void* const moved = requireMemory(std::realloc(static_cast<void*>(this), block));
    btkStrBuf* const buffer = static_cast<btkStrBuf*>(moved);
    buffer->capacity = roomIn(block) & 0x7FFFFFFFu;
    if (buffer->other.Get() == nullptr)
        buffer->setLimit();
    return buffer;
}

template<typename C>
btkStrBuf* btkStrBuf::Resize(std::size_t size, C** text, bool keep)
{
    if (isWide == wideForm<C> && references.GetAcquire() == 1) {
        if (size <= capacity) {
            *text = Created<C>();
            return this;
        }
        if (keep) {
            btkStrBuf* const buffer = grow(size);
            *text = buffer->Created<C>();
            return buffer;
        }
    }

    btkStrBuf* buffer;
    if (keep) {
        C* kept;
        if (Get(&kept) == nullptr)
            return nullptr;
        const std::size_t units = GetLength<C>();
        buffer = Alloc(std::max(size, (units + 1) * sizeof(C)), text);
        copyText(*text, kept, units);
        buffer->length = static_cast<std::uint32_t>(units);
    } else {
        buffer = Alloc(size, text);
    }
    Unlock();
    return buffer;
}

template<typename C>
void btkStrBuf::Commit()
{
    C* const text = Created<C>();
    const std::size_t most = capacity / sizeof(C) - 1;
    Commit<C>(boundedLength(text, most));
}

template<typename C>
void btkStrBuf::Commit(std::size_t newLength)
{
    Created<C>()[newLength] = 0;
    length = static_cast<std::uint32_t>(newLength);
    dropOther();
}

void btkStrBuf::dropOther()
{
    if (other.Get() != nullptr) {
        std::free(other.Exchange(nullptr));
        setLimit();
    }
}

template<typename C>
bool btkStrBuf::AppendInPlace(const C* text, std::size_t size)
{
    if (references.GetAcquire() != 1 || isWide != wideForm<C> || other.Get() != nullptr ||
        size >= capacity / sizeof(C) - length)
        return false;
    setLimit();
    copyText(Created<C>() + length, text, size);
    length += static_cast<std::uint32_t>(size);
    return true;
}

void btkStrBuf::destroy()
{
    if (Produced* const form = other.GetAcquire())
        std::free(form);
    std::free(static_cast<void*>(this));
}

void btkStrBuf::Lock(char** mb, unsigned short** wide)
{
    Lock();
    Produced* const form = other.GetAcquire();
    if (mb != nullptr)
        *mb = !isWide ? Created<char>() : form != nullptr ? textOf<char>(form) : nullptr;
    if (wide != nullptr)
        *wide = isWide ? Created<unsigned short>() : form != nullptr ? textOf<unsigned short>(form) : nullptr;
}

#define BTK_INSTANTIATE(C)                                                  \
    template BASE_API btkStrBuf* btkStrBuf::Alloc(std::size_t, C**);        \
    template BASE_API btkStrBuf* btkStrBuf::Create(const C*, std::size_t);  \
    template BASE_API btkStrBuf* btkStrBuf::Get(C**);                       \
    template BASE_API btkStrBuf* btkStrBuf::Resize(std::size_t, C**, bool); \
    template BASE_API void btkStrBuf::Commit<C>();                          \
    template BASE_API void btkStrBuf::Commit<C>(std::size_t);               \
    template BASE_API bool btkStrBuf::AppendInPlace(const C*, std::size_t);
BTK_INSTANTIATE(char)
BTK_INSTANTIATE(unsigned short)
