#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

struct xdictindexentry
{
    const char* key; ///< null: free
    std::uint32_t slot;
    std::uint32_t hash;
};

/// Finds the slot of a key: an open hash table with a hash worth its name and a seed of its own, so that no
/// choice of keys makes it slow.
class xdictindex
{
public:
    using Entry = xdictindexentry;

    xdictindex();

    /// The entry of `key`, or null.
    Entry* find(const char* key) const
    {
        const std::uint32_t hash = hashOf(key);
        for (std::size_t i = hash & mask; entries[i].key != nullptr; i = (i + 1) & mask)
            if (entries[i].hash == hash && std::strcmp(entries[i].key, key) == 0)
                return &entries[i];
        return nullptr;
    }
    /// Makes room for one more entry.
    /// @throws std::bad_alloc  nothing has changed
    void reserve()
    {
        if ((count + 1) * 8 > (mask + 1) * 5)
            grow();
    }
    /// Adds a key that there is not; there is room for it. The text is not copied.
    void insert(const char* key, std::uint32_t slot);
    void erase(Entry* entry);
    /// Gives each entry the slot slots[old slot].
    void renumber(const std::uint32_t* slots);

private:
    std::uint32_t hashOf(const char* key) const;
    void grow();
    Entry* freeFor(std::uint32_t hash) const;

    std::size_t mask;
    std::unique_ptr<Entry[]> entries;
    std::size_t count = 0;
    std::uint64_t seed;
};
