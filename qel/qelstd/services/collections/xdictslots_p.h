#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "qelbdict.h"

/// The smallest table, in slots.
inline constexpr unsigned xdictminsize = 32;
inline constexpr unsigned xdictmaxsize = 1u << 30; // so that an int counts the slots

/// Returns the size for a table of `size` slots before an entry is added to its `count`, or after one was
/// removed. May exceed xdictmaxsize.
inline unsigned xdictNextSize(const xdictcontrol& loads, unsigned size, unsigned count)
{
    // The load is a whole percentage, rounded down.
    const std::uint64_t percent = std::uint64_t{count} * 100;
    if (percent >= std::uint64_t{size} * (std::uint64_t{loads.maxLoad} + 1))
        return size * 2;
    if (size > xdictminsize && percent < std::uint64_t{size / 2} * loads.minLoad)
        return size / 2;
    return size;
}

/// The start and step of a key's probe sequence: the published rule, independent of the table's size.
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

    /// Packs it into an odd number, which no pointer equals.
    std::uintptr_t pack() const { return std::uintptr_t{packed} << 1 | 1; }
    static xdicthome unpack(std::uintptr_t odd)
    {
        // A 32-bit pointer has no room for the sign bit, which equals the bit below it: restored from there.
        xdicthome home;
        home.packed = static_cast<std::uint32_t>(static_cast<std::int32_t>(odd) >> 1);
        return home;
    }
    std::uint32_t start() const { return static_cast<std::uint32_t>(static_cast<std::int32_t>(packed) >> 8); }
    /// The step is 2 * path + 1, with path as a signed byte.
    unsigned char path() const { return static_cast<unsigned char>(packed); }
    bool operator==(const xdicthome&) const = default;
    /// Spreads homes over 2^32 values.
    std::uint32_t hash() const { return packed * 0x9e3779b1; }

private:
    std::uint32_t packed = 0; // the product of three signed bytes takes 23 bits
};

/// The published rule: assigns entries to slots by open addressing with double hashing. Entries are numbered
/// by their places in the dictionary's block.
///
/// The first free slot of a probe sequence is found without visiting every slot before it, of which there may
/// be as many as there are keys: keys with the same home continue where the last of them stopped, and on each
/// path (at most 256), stretches of 16 slots known to be full are skipped.
class xdictslots
{
public:
    /// Creates `size` free slots; `size` is a power of two, at least 32.
    /// @throws std::bad_alloc
    explicit xdictslots(unsigned size);

    static constexpr unsigned none = ~0u;

    unsigned size() const { return mask + 1; }
    unsigned count() const { return takenCount; }
    /// Returns the place of the entry in the slot, or none.
    unsigned placeIn(unsigned slot) const { return isTaken(slot) ? places[slot] : none; }
    unsigned slotOf(unsigned place) const { return entries[place].slot; }
    /// slotOf of that place, if there is one, will be asked for soon.
    void expect(std::uint32_t place) const
    {
        if (place < entries.size())
            __builtin_prefetch(&entries[place]);
    }

    /// Makes room for entries at all places below `n`.
    /// @throws std::bad_alloc  nothing is changed
    void reserve(unsigned n)
    {
        if (entries.size() < n)
            entries.resize(n);
    }
    /// Takes the first free slot for `home`. Returns none if all slots are taken.
    unsigned take(xdicthome home)
    {
        // Most keys find a free slot within a few probes.
        const std::uint32_t step = stepOf(home.path());
        std::uint32_t slot = home.start() & mask;
        for (unsigned i = mask < small ? mask + 1 : patience; i != 0; --i, slot = (slot + step) & mask)
            if (!isTaken(slot))
                return takeSlot(slot);
        return takeFar(home, slot);
    }
    /// Puts an entry into a slot that was taken for it; reserve has made room for its place.
    void put(unsigned slot, unsigned place, xdicthome home)
    {
        places[slot] = place;
        entries[place] = {home, slot};
    }
    void giveBack(unsigned slot);
    /// Changes the size and adds the entries again in the order of the slots. False: they do not fit.
    /// @throws std::bad_alloc  nothing is changed
    bool resize(unsigned newSize);
    struct Entry
    {
        xdicthome home;
        std::uint32_t slot = 0;
    };
    /// Moves each entry to the place to[its place]. `spare` has room for all.
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
    // Tables of at most so many slots are probed slot by slot.
    static constexpr unsigned small = 64;
    // Single probes in a larger table before the skipping begins.
    static constexpr unsigned patience = 8;
    static constexpr unsigned stretch = 16;
    static constexpr unsigned pathCount = 256;

    struct Path
    {
        /// One bit for each stretch, set once all of its slots were found taken; null until a long search.
        std::unique_ptr<std::uint64_t[]> full;
        std::size_t applied = 0; ///< entries of `freed` already applied to `full`
    };

    /// Where the last search from a home stopped, for keys that share it.
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
    // Grows when a slot is freed, which invalidates all cursors.
    std::uint64_t age = 1;
    // Null until a long search.
    std::unique_ptr<Cursor[]> cursors;
    // Null until a long search.
    std::unique_ptr<Path[]> paths;
    // Slots freed and not yet applied to all paths.
    std::unique_ptr<std::uint32_t[]> freed;
    std::size_t freedCount = 0;
};
