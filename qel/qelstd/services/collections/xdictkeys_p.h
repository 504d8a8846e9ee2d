#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "xdictindex_p.h"

/// The texts of the keys of one dictionary: an arena. A block of the heap for each would take longer than all
/// else that it takes to add a key. The memory of short texts is used again;
/// that of long ones is gone when the owner moves the others to a new arena.
class xdictkeys
{
public:
    xdictkeys() = default;
    ~xdictkeys();
    xdictkeys(const xdictkeys&) = delete;
    xdictkeys& operator=(const xdictkeys&) = delete;
    void swap(xdictkeys& other) noexcept;

    /// A copy of the text, at an even address, which has at least 16 bytes: zeros follow a short one.
    /// @throws std::bad_alloc
    char* add(const xdictkey& key)
    {
        const std::size_t units = unitsFor(key.length);
        usedUnits += static_cast<std::uint32_t>(units);
        if (units <= longest)
            if (Cell*& first = freed[units - 1]; first != nullptr)
                return key.writeTo(reinterpret_cast<char*>(std::exchange(first, first->next)));
        if (static_cast<std::size_t>(end - at) < units * unit) {
            const std::size_t more = std::clamp(std::size_t{chunkUnits} * (chunkUnits < 100 ? 4 : 1),
                                                std::size_t{1}, largestChunk);
            addChunk(std::max(units, more));
        }
        return key.writeTo(std::exchange(at, at + units * unit));
    }
    void remove(char* text, std::size_t length)
    {
        const std::size_t units = unitsFor(length);
        usedUnits -= static_cast<std::uint32_t>(units);
        if (units <= longest) {
            Cell*& first = freed[units - 1];
            first = new (text) Cell{first};
        } else {
            lostUnits += static_cast<std::uint32_t>(units);
        }
    }
    /// Makes room for all texts of another arena.
    /// @throws std::bad_alloc
    void reserve(const xdictkeys& other) { addChunk(other.usedUnits); }
    /// Whether much of the memory holds no text.
    bool isSparse() const
    {
        return lostUnits > usedUnits + 256 || (chunkUnits > 256 && usedUnits < chunkUnits / 16);
    }

private:
    // All memory is counted in units.
    static constexpr std::size_t unit = xdictkey::inWords;
    static constexpr std::size_t longest = 3; // text whose memory is used again
    static constexpr std::size_t largestChunk = (std::size_t{16} << 20) / unit;

    struct Chunk // memory follows it
    {
        Chunk* next;
    };

    struct Cell
    {
        Cell* next;
    };

    static std::size_t unitsFor(std::size_t length) { return length / unit + 1; }
    void addChunk(std::size_t units);

    char* at = nullptr; // what is left of the newest chunk
    char* end = nullptr;
    std::array<Cell*, longest> freed{}; // by size
    Chunk* chunks = nullptr;
    std::uint32_t chunkUnits = 0;
    std::uint32_t usedUnits = 0;
    std::uint32_t lostUnits = 0; // of long texts that are gone
};
