#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "qelbdict.h"

/// The smallest table.
inline constexpr unsigned xdictminsize = 32;
inline constexpr unsigned xdictmaxsize = 1u << 30; // so that an int counts the slots

/// The size that a table of `size` slots gets before an entry is added to its `count`, and after one was
/// removed. It may be too large.
inline unsigned xdictNextSize(const xdictcontrol& loads, unsigned size, unsigned count)
{
    // The loads are whole percents, rounded down.
    const std::uint64_t percent = std::uint64_t{count} * 100;
    if (percent >= std::uint64_t{size} * (std::uint64_t{loads.maxLoad} + 1))
        return size * 2;
    if (size > xdictminsize && percent < std::uint64_t{size / 2} * loads.minLoad)
        return size / 2;
    return size;
}

/// Where the probes for a key begin, and which way they go: the published rule, less the size of the table.
class xdicthome
{
public:
    xdicthome() = default;
    xdicthome(const char* key, std::size_t length)
    {
        if (length == 0)
            return;
        const auto at = [key](std::size_t i) { return std::int32_t{static_cast<signed char>(key[i])}; };
        const std::int32_t product = at(length / 2) * at(length - 1) * at(0);
        const std::int32_t x = length < 3 ? at(0) : at(length / 2 + 1) ^ at(length - 2) ^ at(1);
        packed = static_cast<std::uint32_t>(product) << 8 | static_cast<unsigned char>(x);
    }

    /// As an odd number, which is that of no pointer.
    std::uintptr_t pack() const { return std::uintptr_t{packed} << 1 | 1; }
    static xdicthome unpack(std::uintptr_t odd)
    {
        xdicthome home; // with the sign bit, which a narrow pointer has no room for but as a copy of the next
        home.packed = static_cast<std::uint32_t>(static_cast<std::int32_t>(odd) >> 1);
        return home;
    }
    std::uint32_t start() const { return static_cast<std::uint32_t>(static_cast<std::int32_t>(packed) >> 8); }
    /// The step is 2 * path + 1, with path as a signed byte.
    unsigned char path() const { return static_cast<unsigned char>(packed); }
    bool operator==(const xdicthome&) const = default;
    /// Spreads homes over 2^32.
    std::uint32_t hash() const { return packed * 0x9e3779b1; }

private:
    std::uint32_t packed = 0; // the product of three signed bytes takes 23 bits
};

/// The published rule: which entry of a table lies in which slot, by open addressing with double hashing.
/// Entries are numbered by their places in the dictionary's block.
///
/// The first free slot that the probes of a key meet is found without walking them one by one, of which there
/// may be as many as there are keys: keys that share a home go on where the last of them ended, and on each
/// path (there are no more than 256), stretches of 16 slots that are known to be all taken are skipped.
class xdictslots
{
public:
    /// `size`, a power of two from 32 on, free slots.
    /// @throws std::bad_alloc
    explicit xdictslots(unsigned size);

    static constexpr unsigned none = ~0u;

    unsigned size() const { return mask + 1; }
    unsigned count() const { return takenCount; }
    /// The place of the entry in the slot, or none.
    unsigned placeIn(unsigned slot) const { return isTaken(slot) ? places[slot] : none; }
    unsigned slotOf(unsigned place) const { return entries[place].slot; }

    /// Makes room for entries at all places below `n`.
    /// @throws std::bad_alloc  nothing has changed
    void reserve(unsigned n)
    {
        if (entries.size() < n)
            entries.resize(n);
    }
    /// Takes the first free slot for `home`. None: all slots are taken.
    unsigned take(xdicthome home)
    {
        // Most keys find their slot soon.
        const std::uint32_t step = stepOf(home.path());
        std::uint32_t slot = home.start() & mask;
        for (unsigned i = mask < small ? mask + 1 : patience; i != 0; --i, slot = (slot + step) & mask)
            if (!isTaken(slot))
                return takeSlot(slot);
        return takeFar(home, slot);
    }
    /// Puts an entry, whose place has room, into a slot that was taken for it.
    void put(unsigned slot, unsigned place, xdicthome home)
    {
        places[slot] = place;
        entries[place] = {home, slot};
    }
    void giveBack(unsigned slot);
    /// The table gets another size, and the entries are added anew in the order of the slots. False: they do
    /// not fit.
    /// @throws std::bad_alloc  nothing has changed
    bool resize(unsigned newSize);
    struct Entry
    {
        xdicthome home;
        std::uint32_t slot = 0;
    };
    /// Each entry goes to the place to[its place]. `spare` has room for all.
    void renumber(const std::uint32_t* to, std::vector<Entry>& spare);
    /// Calls visit(slot) for each slot that is taken, from the first to the last.
    template<class Visit>
    void forEachTaken(Visit visit) const
    {
        for (std::size_t word = 0; word <= mask / 64; ++word)
            for (std::uint64_t bits = taken[word]; bits != 0; bits &= bits - 1)
                visit(static_cast<unsigned>(word * 64) + static_cast<unsigned>(std::countr_zero(bits)));
    }

private:
    static constexpr unsigned small = 64;   // slots, all of which are probed one by one
    static constexpr unsigned patience = 8; // probes one by one in a larger table
    static constexpr unsigned stretch = 16;
    static constexpr unsigned pathCount = 256;

    struct Path
    {
        /// One bit for each stretch, set when all of its slots were seen taken; null while nobody went far.
        std::unique_ptr<std::uint64_t[]> full;
        std::size_t applied = 0; ///< of `freed`, what `full` knows of
    };

    /// How far the probes from a home were last gone, for keys that share it.
    struct Cursor
    {
        xdicthome home;
        std::uint32_t next = 0; ///< all slots before it were taken
        std::uint64_t age = 0;  ///< the value of `age` then
    };

    static std::uint32_t stepOf(unsigned path)
    {
        return 2 * static_cast<std::uint32_t>(static_cast<signed char>(path)) + 1;
    }
    bool isTaken(std::uint32_t slot) const { return taken[slot / 64] >> slot % 64 & 1; }
    unsigned takeSlot(std::uint32_t slot)
    {
        taken[slot / 64] |= std::uint64_t{1} << slot % 64;
        ++takenCount;
        return slot;
    }
    unsigned takeFar(xdicthome home, std::uint32_t slot);
    unsigned findFarther(unsigned path, std::uint32_t slot);
    Cursor* openCursor(xdicthome home);
    Path* openPath(unsigned path);
    void applyFreed(Path& to, std::uint32_t inverse);
    std::uint32_t nextStretch(const Path* path, std::uint32_t from) const;

    std::uint32_t mask;
    unsigned takenCount = 0;
    std::unique_ptr<std::uint64_t[]> taken;  // one bit for each slot
    std::unique_ptr<std::uint32_t[]> places; // by slot, where it is taken
    std::vector<Entry> entries;              // by place
    std::uint64_t age = 1;                   // grows when a slot is given back, which ends all cursors
    std::unique_ptr<Cursor[]> cursors;       // null until somebody goes far
    std::unique_ptr<Path[]> paths;           // null until somebody goes far
    std::unique_ptr<std::uint32_t[]> freed;  // slots given back since the paths learned of it
    std::size_t freedCount = 0;
};
