#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "xdictindex_p.h"

/// Arena for the key texts of one dictionary: a heap block for each text would take longer than the rest of
/// adding a key. Memory of short texts is reused; that of long ones is reclaimed when the owner moves the
/// other texts to a new arena.
class xdictkeys
{
public:
    xdictkeys() = default;
    ~xdictkeys();
    xdictkeys(const xdictkeys&) = delete;
    xdictkeys& operator=(const xdictkeys&) = delete;
    void swap(xdictkeys& other) noexcept;

    /// Returns a copy of the text at an even address, with at least 16 bytes: a short text is padded with
    /// zeros.
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
    /// Whether a large part of the memory holds no text.
    bool isSparse() const
    {
        return lostUnits > usedUnits + 256 || (chunkUnits > 256 && usedUnits < chunkUnits / 16);
    }

private:
    // All memory is counted in units.
    static constexpr std::size_t unit = xdictkey::inWords;
    static constexpr std::size_t longest = 3; // units of the longest text whose memory is reused
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

    char* at = nullptr; // the free part of the newest chunk
    char* end = nullptr;
    std::array<Cell*, longest> freed{}; // by size
    Chunk* chunks = nullptr;
    std::uint32_t chunkUnits = 0;
    std::uint32_t usedUnits = 0;
    std::uint32_t lostUnits = 0; // of removed long texts
};
