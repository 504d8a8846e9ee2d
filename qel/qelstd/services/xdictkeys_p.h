#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "xdictindex_p.h"

/// The texts of the keys of one dictionary. There are many and most are short, so they lie side by side in
/// cells: a block of the heap for each would take longer than all else that it takes to add a key. Cells of
/// removed keys are used again. Long texts have blocks of their own, which are the owner's to remove.
class xdictkeys
{
public:
    xdictkeys() = default;
    /// With room for cells of `bytes` in all.
    /// @throws std::bad_alloc
    explicit xdictkeys(std::size_t bytes) { addChunk(bytes); }
    ~xdictkeys();
    xdictkeys(const xdictkeys&) = delete;
    xdictkeys& operator=(const xdictkeys&) = delete;
    void swap(xdictkeys& other) noexcept;

    /// A copy of the text, which has at least 16 bytes: zeros follow a short one.
    /// @throws std::bad_alloc
    char* add(const xdictkey& key);
    void remove(char* text, std::size_t length);
    /// Takes over a text of another store. A cell for it must have been asked of the constructor.
    char* adopt(char* text);

    static bool isLong(std::size_t length) { return length >= longest; }
    /// Whether there are texts that the destructor leaves.
    bool hasLong() const { return longCount != 0; }
    /// The bytes of all cells that hold a text.
    std::size_t used() const { return usedBytes; }
    /// Whether most of the memory holds no text.
    bool isSparse() const { return chunkBytes > firstChunk * 8 && usedBytes < chunkBytes / 4; }

private:
    static constexpr std::size_t unit = xdictkey::inWords;
    static constexpr std::size_t longest = 4 * unit; ///< of a cell
    static constexpr std::size_t firstChunk = 512;
    static constexpr std::size_t largestChunk = std::size_t{16} << 20;

    struct Chunk
    {
        Chunk* next;
        void* unused; ///< cells begin at multiples of their unit
    };
    struct Cell
    {
        Cell* next;
    };

    static std::size_t cellSize(std::size_t length) { return (length + unit) & ~(unit - 1); }
    Cell*& freeCells(std::size_t size) { return freed[size / unit - 1]; }
    void addChunk(std::size_t bytes);

    char* at = nullptr; // what is left of the newest chunk
    char* end = nullptr;
    std::array<Cell*, longest / unit> freed{}; // by size
    Chunk* chunks = nullptr;
    std::size_t chunkBytes = 0;
    std::size_t usedBytes = 0;
    std::size_t longCount = 0;
};

inline char* xdictkeys::add(const xdictkey& key)
{
    if (isLong(key.length)) {
        char* const text = key.writeTo(new char[key.length + 1]);
        ++longCount;
        return text;
    }
    const std::size_t size = cellSize(key.length);
    char* cell;
    if (Cell*& first = freeCells(size); first != nullptr) {
        cell = reinterpret_cast<char*>(std::exchange(first, first->next));
    } else {
        if (static_cast<std::size_t>(end - at) < size)
            addChunk(std::clamp(chunkBytes, firstChunk, largestChunk));
        cell = at;
        at += size;
    }
    usedBytes += size;
    return key.writeTo(cell);
}

inline void xdictkeys::remove(char* text, std::size_t length)
{
    if (isLong(length)) {
        delete[] text;
        --longCount;
        return;
    }
    const std::size_t size = cellSize(length);
    Cell*& first = freeCells(size);
    first = new (text) Cell{first};
    usedBytes -= size;
}
