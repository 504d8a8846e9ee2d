#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
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
        const std::size_t bytes = bytesFor(key.length);
        if (bytes <= longest)
            if (Cell*& first = freed[bytes / unit - 1]; first != nullptr) {
                usedBytes += bytes;
                return key.writeTo(reinterpret_cast<char*>(std::exchange(first, first->next)));
            }
        if (static_cast<std::size_t>(end - at) < bytes) {
            const std::size_t more =
                std::clamp(chunkBytes * (chunkBytes < 2048 ? 3 : 1), firstChunk, largestChunk);
            addChunk(std::max(bytes, more));
        }
        usedBytes += bytes;
        return key.writeTo(std::exchange(at, at + bytes));
    }
    void remove(char* text, std::size_t length)
    {
        const std::size_t bytes = bytesFor(length);
        usedBytes -= bytes;
        if (bytes <= longest) {
            Cell*& first = freed[bytes / unit - 1];
            first = new (text) Cell{first};
        } else {
            lostBytes += bytes;
        }
    }
    /// Makes room for all texts of another arena.
    /// @throws std::bad_alloc
    void reserve(const xdictkeys& other) { addChunk(other.usedBytes); }
    /// Whether much of the memory holds no text.
    bool isSparse() const
    {
        return lostBytes > usedBytes + 4096 || (chunkBytes > 4096 && usedBytes < chunkBytes / 16);
    }

private:
    static constexpr std::size_t unit = xdictkey::inWords;
    static constexpr std::size_t longest = 4 * unit; // of a text whose memory is used again
    static constexpr std::size_t firstChunk = 2 * unit;
    static constexpr std::size_t largestChunk = std::size_t{16} << 20;

    struct Chunk // memory follows it
    {
        Chunk* next;
        void* unused; // texts begin at multiples of their unit
    };

    struct Cell
    {
        Cell* next;
    };

    static std::size_t bytesFor(std::size_t length) { return (length + unit) & ~(unit - 1); }
    void addChunk(std::size_t bytes);

    char* at = nullptr; // what is left of the newest chunk
    char* end = nullptr;
    std::array<Cell*, longest / unit> freed{}; // by size
    Chunk* chunks = nullptr;
    std::size_t chunkBytes = 0;
    std::size_t usedBytes = 0;
    std::size_t lostBytes = 0; // of long texts that are gone
};
