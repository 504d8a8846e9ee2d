#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

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

    std::uint32_t start() const { return static_cast<std::uint32_t>(static_cast<std::int32_t>(packed) >> 8); }
    /// The step is 2 * path + 1, with path as a signed byte.
    unsigned char path() const { return static_cast<unsigned char>(packed); }
    bool operator==(const xdicthome&) const = default;
    /// Spreads homes over 2^32.
    std::uint32_t hash() const { return packed * 0x9e3779b1; }

private:
    std::uint32_t packed = 0; // the product of three signed bytes takes 23 bits
};

/// Which slots of a table are free, and which free one is the first that the probes of a key meet. That is
/// found without walking the probes one by one, of which there may be as many as there are keys: keys that
/// share a home go on where the last of them ended, and on each path (there are no more than 256), stretches
/// of 16 slots that are known to be all taken are skipped.
class xdictplaces
{
public:
    /// `size`, a power of two from 32 on, free slots.
    explicit xdictplaces(unsigned size);

    static constexpr unsigned none = ~0u;

    /// Takes the first free slot for `home`. None: all slots are taken.
    unsigned take(xdicthome home)
    {
        // Most keys find their place soon.
        const std::uint32_t step = stepOf(home.path());
        std::uint32_t slot = home.start() & mask;
        for (unsigned i = mask < small ? mask + 1 : patience; i != 0; --i, slot = (slot + step) & mask)
            if (!isTaken(slot))
                return take(slot);
        return takeFar(home, slot);
    }
    void giveBack(unsigned slot);
    /// Calls visit(slot) for each slot that is taken, from the first to the last.
    template<class Visit>
    void forEachTaken(Visit visit) const
    {
        for (std::size_t word = 0; word <= mask / 64; ++word)
            for (std::uint64_t bits = taken[word]; bits != 0; bits &= bits - 1)
                visit(static_cast<unsigned>(word * 64) + static_cast<unsigned>(std::countr_zero(bits)));
    }
    /// The places of a table of another size, which takes the keys in the order of these slots:
    /// `homeOf(slot)` is the home of a key, and `moved(slot, newSlot)` hears where it goes, `none` when all
    /// is taken.
    template<class HomeOf, class Moved>
    xdictplaces rehashed(unsigned newSize, HomeOf homeOf, Moved moved) const
    {
        xdictplaces places(newSize);
        forEachTaken([&](unsigned slot) { moved(slot, places.take(homeOf(slot))); });
        return places;
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
    unsigned take(std::uint32_t slot)
    {
        taken[slot / 64] |= std::uint64_t{1} << slot % 64;
        return slot;
    }
    unsigned takeFar(xdicthome home, std::uint32_t slot);
    unsigned findFarther(unsigned path, std::uint32_t slot);
    Cursor* openCursor(xdicthome home);
    Path* openPath(unsigned path);
    void applyFreed(Path& to, std::uint32_t inverse);
    std::uint32_t nextStretch(const Path* path, std::uint32_t from) const;

    std::uint32_t mask;
    std::unique_ptr<std::uint64_t[]> taken; // one bit for each slot
    std::uint64_t age = 1;                  // grows when a slot is given back, which ends all cursors
    std::unique_ptr<Cursor[]> cursors;      // null until somebody goes far
    std::unique_ptr<Path[]> paths;          // null until somebody goes far
    std::unique_ptr<std::uint32_t[]> freed; // slots given back since the paths learned of it
    std::size_t freedCount = 0;
};
