#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

/// Where the probes for a key begin, and which way they go: the published rule, less the size of the table.
struct xdicthome
{
    std::uint32_t start;
    unsigned char path; ///< the step is 2 * path + 1, with path as a signed byte

    xdicthome(const char* key, std::size_t length)
    {
        const auto at = [key](std::size_t i) { return std::int32_t{static_cast<signed char>(key[i])}; };
        if (length == 0) {
            start = 0;
            path = 0;
        } else {
            start = static_cast<std::uint32_t>(at(length / 2) * at(length - 1) * at(0));
            path =
                static_cast<unsigned char>(length < 3 ? at(0) : at(length / 2 + 1) ^ at(length - 2) ^ at(1));
        }
    }
};

/// Which slots of a table are free, and which free one is the first that the probes of a key meet. That is
/// found without walking the probes one by one, of which there may be as many as there are keys: on each path
/// (there are no more than 256), stretches of 16 slots that are known to be all taken are skipped.
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
        const std::uint32_t step = stepOf(home.path);
        std::uint32_t slot = home.start & mask;
        for (unsigned i = 0; i < patience; ++i, slot = (slot + step) & mask)
            if (!isTaken(slot))
                return take(slot);
        return takeFar(home.path, slot);
    }
    void giveBack(unsigned slot);

private:
    static constexpr unsigned patience = 64; // probes one by one
    static constexpr unsigned stretch = 16;
    static constexpr unsigned pathCount = 256;

    struct Path
    {
        /// One bit for each stretch, set when all of its slots were seen taken; null while nobody went far.
        std::unique_ptr<std::uint64_t[]> full;
        std::size_t applied = 0; ///< of `freed`, what `full` knows of
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
    unsigned takeFar(unsigned path, std::uint32_t slot);
    Path* openPath(unsigned path);
    void applyFreed(Path& to, std::uint32_t inverse);
    std::uint32_t nextStretch(const Path* path, std::uint32_t from) const;

    std::uint32_t mask;
    std::unique_ptr<std::uint64_t[]> taken; // one bit for each slot
    std::unique_ptr<Path[]> paths;          // null until somebody goes far
    std::unique_ptr<std::uint32_t[]> freed; // slots given back since the paths learned of it
    std::size_t freedCount = 0;
};
