#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "qelbdict.h"
#include "xdictplaces_p.h"

/// The smallest table.
inline constexpr unsigned xdictminsize = 32;

/// The size that a table of `size` slots gets before an entry is added to its `count`, and after one was
/// removed.
inline unsigned xdictNextSize(const xdictcontrol& loads, unsigned size, unsigned count)
{
    // The loads are whole percents, rounded down.
    const std::uint64_t percent = std::uint64_t{count} * 100;
    if (size == 0)
        return xdictminsize;
    if (percent >= std::uint64_t{size} * (std::uint64_t{loads.maxLoad} + 1))
        return size * 2;
    if (size > xdictminsize && percent < std::uint64_t{size / 2} * loads.minLoad)
        return size / 2;
    return size;
}

/// The past of a table whose slots nobody has asked for: all that its entries' slots follow from. Entries are
/// numbered in the order in which they came, from 0, and no number is used again.
class xdicthistory
{
public:
    /// Of a table of `size` slots without an entry.
    explicit xdicthistory(unsigned size) : firstSize(size) {}

    /// Begins anew, of a table of `size` slots without an entry.
    void restart(unsigned size)
    {
        firstSize = size;
        addedCount = removedCount = 0;
        events.clear();
    }
    /// How many entries have come.
    unsigned added() const { return addedCount; }
    /// Makes room for one more entry, whose removal takes no memory then.
    /// @throws std::bad_alloc
    void reserve()
    {
        if (events.capacity() - events.size() <= addedCount - removedCount)
            events.reserve(events.capacity() * 2 + firstRoom);
    }
    void add() { ++addedCount; }
    void remove(unsigned entry, xdicthome home)
    {
        events.push_back({addedCount, entry, home});
        ++removedCount;
    }
    /// The table doubles or halves after a removal. False without memory.
    bool resize(unsigned oldSize, unsigned newSize);

    /// The table that all this led to.
    struct Outcome
    {
        unsigned size;
        xdictplaces places;
        std::unique_ptr<std::uint32_t[]> slots; ///< of the entries by number; 0 of removed ones
    };
    /// `homes`: of all entries; this fills in those of the removed ones. `room`: numbers that the outcome's
    /// slots have room for, at least all that were added.
    /// @throws std::bad_alloc
    Outcome replay(const xdictcontrol& loads, xdicthome* homes, std::size_t room) const;

private:
    static constexpr std::size_t firstRoom = 16;
    static constexpr std::uint32_t doubled = ~0u; // in the place of an entry
    static constexpr std::uint32_t halved = ~0u - 1;

    struct Event
    {
        std::uint32_t after; ///< how many entries had come before
        std::uint32_t entry; ///< that was removed
        xdicthome home;
    };

    unsigned firstSize;
    unsigned addedCount = 0;
    unsigned removedCount = 0;
    std::vector<Event> events;
};
