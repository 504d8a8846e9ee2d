#include "xsequence.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <qel/base/btkmemory.h>

#include "qeltable.h"

constinit qelClass xboolsequence::rtti = {
    .name = "booleanseq", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xintsequence::rtti = {
    .name = "intseq", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xrealsequence::rtti = {
    .name = "realseq", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xstringsequence::rtti = {
    .name = "stringseq", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xanysequence::rtti = {
    .name = "anyseq", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

template class xtbsequence<unsigned char>;
template class xtbsequence<int>;
template class xtbsequence<double>;
template class xtbsequence<xstring>;
template class xtbsequence<xany>;
template class xtssequence<unsigned char>;
template class xtssequence<int>;
template class xtssequence<double>;
template class xtcsequence<xstring>;
template class xtcsequence<xany>;

namespace {

[[noreturn]] void throwTooLong()
{
    throw std::length_error("a sequence holds at most 2 GiB");
}

constexpr unsigned firstRoom = 24;
constexpr std::size_t largeRoom = 2 << 20;
// Blocks from this size on use huge pages, if they are filled completely.
constexpr std::size_t hugeRoom = 8 << 20;

constexpr std::size_t elsewhere = static_cast<std::size_t>(-1);

/// Returns the offset of `p` in the `size` bytes at `block`.
std::size_t positionIn(const char* block, std::size_t size, const void* p)
{
    const std::size_t distance =
        reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(block);
    return distance < size ? distance : elsewhere;
}

} // namespace

static void checkRange(std::size_t offset, std::size_t n, std::size_t maxBytes)
{
    if (offset > maxBytes || n > maxBytes - offset)
        throwTooLong();
}

void xbasesequence::Resize(std::size_t newUsed)
{
    checkRange(0, newUsed, maxBytes);
    const unsigned before = used;
    const auto after = static_cast<unsigned>(newUsed);
    if (shrink || after > before) {
        const std::size_t rounded = inBlocks(newUsed);
        if (rounded > maxBytes)
            throwTooLong();
        if (rounded != capacity || (isOwn(ownGrowth) && after > room)) {
            needed = after;
            data = static_cast<char*>(OnResize(static_cast<unsigned>(rounded)));
            capacity = static_cast<unsigned>(rounded);
            used = after;
            findReady();
            resetSlots(after, std::min(before, isOwn(ownGrowth) ? std::min(capacity, room) : capacity));
            return;
        }
    }
    used = after;
    resetSlots(after, before);
}

void xbasesequence::resetSlots(unsigned from, unsigned to)
{
    if (from < to) {
        OnDestroy(data + from, to - from);
        OnAllocate(data + from, to - from);
    }
}

void xbasesequence::BaseCopy(std::size_t offset, std::size_t n, const void* from)
{
    checkRange(offset, n, maxBytes);
    const std::size_t position = positionIn(data, used, from);
    if (offset + n > used)
        Resize(offset + n);
    if (n != 0)
        OnCopy(data + offset, position == elsewhere ? from : data + position, static_cast<unsigned>(n));
}

void xbasesequence::BaseInsertEmpty(std::size_t offset, std::size_t n)
{
    checkRange(offset, n, maxBytes);
    const unsigned before = used;
    Resize(std::max<std::size_t>(before, offset) + n);
    if (n != 0 && offset < before)
        OnCopy(data + offset + n, data + offset, before - static_cast<unsigned>(offset));
}

/// Whether this is an object of a standard class of plain values, whose hooks are its hook set's.
bool xbasesequence::isStandard() const
{
    const std::type_info& own = typeid(*this);
    return &own == &typeid(xintsequence) || &own == &typeid(xrealsequence) || &own == &typeid(xboolsequence);
}

void xbasesequence::BaseInsert(std::size_t offset, std::size_t n, const void* from)
{
    const std::size_t position = positionIn(data, used, from);
    const struct Reset
    {
        unsigned& filled;
        ~Reset() { filled = 0; }
    } reset = {filled};
    if (offset == used && (isOwn(ownCopy) || isStandard()))
        filled = static_cast<unsigned>(std::min(n, maxBytes));
    BaseInsertEmpty(offset, n);
    if (n == 0)
        return;
    if (position == elsewhere) {
        OnCopy(data + offset, from, static_cast<unsigned>(n));
        return;
    }
    // The inserted bytes lay in this sequence: the part before `offset` still does, the rest has moved up.
    const std::size_t stayed = position < offset ? std::min(n, offset - position) : 0;
    if (stayed != 0)
        OnCopy(data + offset, data + position, static_cast<unsigned>(stayed));
    if (stayed != n)
        OnCopy(data + offset + stayed, data + position + stayed + n, static_cast<unsigned>(n - stayed));
}

void xbasesequence::BaseRemove(std::size_t a, std::size_t b)
{
    const std::size_t low = std::min(a, b);
    const std::size_t high = std::min<std::size_t>(std::max(a, b), used);
    if (low >= high)
        return;
    if (high != used)
        OnCopy(data + low, data + high, used - static_cast<unsigned>(high));
    Resize(used - (high - low));
}

char* xbasesequence::reallocate(unsigned newCapacity)
{
    if (newCapacity == 0) {
        releaseBlock();
        return nullptr;
    }
    // Hysteresis, so that a sequence that alternately grows and shrinks is not reallocated each time.
    if (newCapacity <= room && newCapacity >= room / 4)
        return data;
    // Of a large block, only the used part takes memory, and moving it is slow.
    const std::size_t grown = std::min(std::size_t{room} * (room < largeRoom ? 2 : 8), maxBytes);
    std::size_t wanted = newCapacity > room ? std::max<std::size_t>(newCapacity, grown) : newCapacity;
    const std::size_t kept = std::min({capacity, room, newCapacity});
    const auto resized = [&] {
        return wanted < hugeRoom ? std::realloc(data, wanted) : btkResizeBlock(data, kept, wanted);
    };
    void* block = resized();
    while (block == nullptr && wanted != newCapacity) {
        wanted = newCapacity + (wanted - newCapacity) / 2;
        block = resized();
    }
    if (block == nullptr) {
        if (newCapacity <= room)
            return data;
        throw std::bad_alloc();
    }
    room = static_cast<unsigned>(wanted);
    return static_cast<char*>(block);
}

char* xbasesequence::reallocatePlain(unsigned newCapacity)
{
    const unsigned before = std::min(capacity, room);
    char* const block = reallocate(newCapacity <= granularity
                                       ? std::min(newCapacity, std::max(std::bit_ceil(needed), firstRoom))
                                       : newCapacity);
    const unsigned first = std::max(before, used + filled);
    const unsigned after = std::min(newCapacity, room);
    if (after > first)
        std::memset(block + first, 0, after - first);
    return block;
}

char* xbasesequence::replace(unsigned newCapacity)
{
    char* block = nullptr;
    if (newCapacity != 0) {
        block = static_cast<char*>(std::malloc(newCapacity));
        if (block == nullptr)
            throw std::bad_alloc();
        OnAllocate(block, newCapacity);
        const unsigned kept = std::min(used, newCapacity);
        if (kept != 0) {
            try {
                OnCopy(block, data, kept);
            } catch (...) {
                OnDestroy(block, newCapacity);
                std::free(block);
                throw;
            }
        }
    }
    if (used != 0)
        OnDestroy(data, used);
    std::free(data);
    room = newCapacity;
    return block;
}

char* xbasesequence::giveUpBlock() noexcept
{
    used = capacity = room = ready = 0;
    return std::exchange(data, nullptr);
}

void xbasesequence::releaseBlock() noexcept
{
    std::free(data);
    room = 0;
}
