#include "xdictindex_p.h"

#include <chrono>

namespace {

std::uint64_t mix(std::uint64_t a, std::uint64_t b)
{
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

template<class Word>
std::uint64_t read(const char* at)
{
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// Odd numbers with bits all over.
constexpr std::uint64_t firstFactor = 0x9e3779b97f4a7c15;
constexpr std::uint64_t secondFactor = 0xd6e8feb86659fd93;

} // namespace

xdictindex::xdictindex() : mask(63), entries(std::make_unique<Entry[]>(mask + 1))
{
    // Addresses and the time differ from run to run.
    const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    seed = mix(reinterpret_cast<std::uintptr_t>(entries.get()) ^ firstFactor, now ^ secondFactor);
}

std::uint32_t xdictindex::hashOf(const char* key) const
{
    const std::size_t length = std::strlen(key);
    std::uint64_t hash = seed ^ length;
    std::uint64_t low = 0, high = 0;
    const char* at = key;
    std::size_t left = length;
    for (; left > 16; left -= 16, at += 16)
        hash = mix(read<std::uint64_t>(at) ^ firstFactor, read<std::uint64_t>(at + 8) ^ hash);
    if (left >= 8) {
        low = read<std::uint64_t>(at);
        high = read<std::uint64_t>(at + left - 8);
    } else if (left >= 4) {
        low = read<std::uint32_t>(at);
        high = read<std::uint32_t>(at + left - 4);
    } else if (left > 0) {
        low = read<unsigned char>(at) << 16 | read<unsigned char>(at + left / 2) << 8 |
              read<unsigned char>(at + left - 1);
    }
    hash = mix(low ^ secondFactor, high ^ hash);
    return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

void xdictindex::insert(const char* key, std::uint32_t slot)
{
    const std::uint32_t hash = hashOf(key);
    *freeFor(hash) = {key, slot, hash};
    ++count;
}

void xdictindex::erase(Entry* entry)
{
    // The entries behind move up, so that no search ends at the gap before it has seen them.
    std::size_t gap = static_cast<std::size_t>(entry - entries.get());
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

void xdictindex::renumber(const std::uint32_t* slots)
{
    for (std::size_t i = 0; i <= mask; ++i)
        if (entries[i].key != nullptr)
            entries[i].slot = slots[entries[i].slot];
}

void xdictindex::grow()
{
    const std::size_t oldSize = mask + 1;
    auto old = std::make_unique<Entry[]>(2 * oldSize);
    old.swap(entries);
    mask = 2 * oldSize - 1;
    for (std::size_t i = 0; i < oldSize; ++i)
        if (old[i].key != nullptr)
            *freeFor(old[i].hash) = old[i];
}

xdictindexentry* xdictindex::freeFor(std::uint32_t hash) const
{
    std::size_t i = hash & mask;
    while (entries[i].key != nullptr)
        i = (i + 1) & mask;
    return &entries[i];
}
