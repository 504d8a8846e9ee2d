#include <cstdlib>
#include <new>
#include <utility>

#include <qel/base/btkmemory.h>

#include "xdictindex_p.h"

void xdictindex::erase(Entry* entry)
{
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
    const std::size_t oldSize = size();
    const std::size_t newSize = oldSize == 0 ? 64 : oldSize * (oldSize < 1024 ? 4 : 2);
    void* const block = btkResizeBlock(nullptr, 0, newSize * sizeof(Entry));
    if (block == nullptr)
        throw std::bad_alloc();
    std::memset(block, 0, newSize * sizeof(Entry));
    Entry* const old = std::exchange(entries, static_cast<Entry*>(block));
    mask = static_cast<std::uint32_t>(newSize - 1);
    for (std::size_t i = 0; i < oldSize; ++i) {
        if (old[i].key == nullptr)
            continue;
        std::size_t at = old[i].hash & mask;
        while (entries[at].key != nullptr)
            at = (at + 1) & mask;
        entries[at] = old[i];
    }
    std::free(old);
}
