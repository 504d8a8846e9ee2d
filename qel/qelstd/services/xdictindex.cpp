#include "xdictindex_p.h"

#include <chrono>
#include <cstdlib>
#include <new>

#include <qel/base/btkmemory.h>

namespace {

/// Differs from run to run, as addresses and the time do.
std::uint64_t runSeed()
{
    static const std::uint64_t seed =
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        reinterpret_cast<std::uintptr_t>(&seed) << 20;
    return seed;
}

} // namespace

xdictindex::xdictindex()
    : entries(allocate(mask + 1)),
      seed((reinterpret_cast<std::uintptr_t>(entries) ^ runSeed()) * 0xd6e8feb86659fd93)
{
}

xdictindex::~xdictindex()
{
    std::free(entries);
}

xdictindex::Entry* xdictindex::allocate(std::size_t n)
{
    void* const block = btkResizeBlock(nullptr, 0, n * sizeof(Entry));
    if (block == nullptr)
        throw std::bad_alloc();
    std::memset(block, 0, n * sizeof(Entry));
    return static_cast<Entry*>(block);
}

void xdictindex::erase(Entry* entry)
{
    // The entries behind move up, so that no search ends at the gap before it has seen them.
    std::size_t gap = static_cast<std::size_t>(entry - entries);
    for (std::size_t i = (gap + 1) & mask; entries[i].key != nullptr; i = (i + 1) & mask) {
        const std::size_t home = entries[i].hash & mask;
        if (((i - home) & mask) >= ((i - gap) & mask)) {
            entries[gap] = entries[i];
            gap = i;
        }
    }
    entries[gap].key = nullptr;
    --count;
}

void xdictindex::grow()
{
    const std::size_t oldSize = mask + 1;
    const std::size_t newSize = oldSize * (oldSize < 1024 ? 4 : 2);
    Entry* const old = entries;
    entries = allocate(newSize);
    mask = newSize - 1;
    for (std::size_t i = 0; i < oldSize; ++i)
        if (old[i].key != nullptr)
            *freeFor(old[i].hash) = old[i];
    std::free(old);
}
