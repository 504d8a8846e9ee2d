#include <cstdlib>
#include <new>
#include <utility>

#include <qel/base/btkmemory.h>

#include "xdictindex_p.h"

void xdictindex::erase(Entry* entry)
{
    std::size_t gap = static_cast<std::size_t>(entry - entries);
    for (std::size_t i = (gap + 1) & mask; tags()[i] != 0; i = (i + 1) & mask) {
        const std::size_t home = entries[i].hash & mask;
        if (((i - home) & mask) >= ((i - gap) & mask)) {
            entries[gap] = entries[i];
            setTag(gap, tags()[i]);
            gap = i;
        }
    }
    setTag(gap, 0);
    --count;
}

void xdictindex::grow()
{
    const std::size_t oldSize = size();
    const std::size_t newSize = oldSize == 0 ? 64 : oldSize * (oldSize < 1024 ? 4 : 2);
    const std::size_t bytes = newSize * (sizeof(Entry) + 1) + 8;
    void* const block = btkResizeBlock(nullptr, 0, bytes);
    if (block == nullptr)
        throw std::bad_alloc();
    std::memset(block, 0, bytes);
    Entry* const old = std::exchange(entries, static_cast<Entry*>(block));
    const unsigned char* const oldTags = reinterpret_cast<unsigned char*>(old + oldSize);
    mask = static_cast<std::uint32_t>(newSize - 1);
    for (std::size_t i = 0; i < oldSize; ++i) {
        if (oldTags[i] == 0)
            continue;
        std::size_t at = old[i].hash & mask;
        while (tags()[at] != 0)
            at = (at + 1) & mask;
        entries[at] = old[i];
        setTag(at, oldTags[i]);
    }
    std::free(old);
}
