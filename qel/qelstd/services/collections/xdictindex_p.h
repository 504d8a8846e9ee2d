#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

/// The text of a key prepared for a lookup: its length, its hash and, for a short text, its bytes in two
/// words.
struct xdictkey
{
    static constexpr std::size_t inWords = 16; ///< texts of fewer bytes are short

    xdictkey(const char* key, std::uint64_t seed);

    bool equals(const char* stored) const
    {
        if (length >= inWords)
            return std::strcmp(stored, text) == 0;
        return read<std::uint64_t>(stored) == first && read<std::uint64_t>(stored + 8) == second;
    }
    /// Writes the text with its terminator, and pads a short one with zeros up to 16 bytes.
    char* writeTo(char* to) const
    {
        if (length < inWords) {
            std::memcpy(to, &first, 8);
            std::memcpy(to + 8, &second, 8);
        } else {
            std::memcpy(to, text, length + 1);
        }
        return to;
    }

    const char* text;
    std::size_t length;
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    std::uint32_t hash;

private:
    template<class Word>
    static Word read(const char* at)
    {
        Word word;
        std::memcpy(&word, at, sizeof word);
        return word;
    }
    static std::uint64_t mix(std::uint64_t a, std::uint64_t b)
    {
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }
    void readShort();
};

inline xdictkey::xdictkey(const char* key, std::uint64_t seed) : text(key), length(std::strlen(key))
{
    std::uint64_t state = seed;
    if (length < inWords) {
        readShort();
    } else {
        const char* const last = text + length - inWords;
        for (const char* at = text; at < last; at += inWords)
            state = mix(read<std::uint64_t>(at) ^ seed, read<std::uint64_t>(at + 8) ^ state) + length;
        first = read<std::uint64_t>(last);
        second = read<std::uint64_t>(last + 8);
    }
    // The seed keeps chosen keys from zeroing a factor.
    hash = static_cast<std::uint32_t>(mix(first ^ state, second ^ ~seed));
}

inline void xdictkey::readShort()
{
    if constexpr (std::endian::native == std::endian::little) {
        // Overlapping reads replace a loop over the bytes; branch-free from 4 bytes on.
        const std::size_t n = length;
        if (n >= 4) {
            const bool isWide = n >= 8;
            const std::size_t inner = isWide ? 4 : 0;
            const std::uint64_t head = read<std::uint32_t>(text);
            const std::uint64_t tail = read<std::uint32_t>(text + n - 4);
            const std::uint64_t head8 = head | std::uint64_t{read<std::uint32_t>(text + inner)} << 32;
            const std::uint64_t tail8 = read<std::uint32_t>(text + n - 4 - inner) | tail << 32;
            first = isWide ? head8 : head | tail << 8 * (n % 4);
            second = isWide ? tail8 >> 7 >> (8 * (15 - n) + 1) : 0;
        } else if (n > 0) {
            const auto byte = [this](std::size_t i) {
                return std::uint64_t{static_cast<unsigned char>(text[i])} << 8 * i;
            };
            first = byte(0) | byte(n / 2) | byte(n - 1);
        }
    } else {
        char bytes[inWords] = {};
        std::memcpy(bytes, text, length);
        first = read<std::uint64_t>(bytes);
        second = read<std::uint64_t>(bytes + 8);
    }
}

struct xdictindexentry
{
    char* key;           ///< a text of xdictkeys; null: the slot is free
    std::uint32_t place; ///< position of the entry in the block
    std::uint32_t hash;
};

/// Finds the entry of a key: open addressing with linear probing and a per-table seed, so that chosen keys
/// cannot force collisions. Allocates no memory until the first reserve.
class xdictindex
{
public:
    using Entry = xdictindexentry;

    xdictindex() = default;
    ~xdictindex() { std::free(entries); }
    xdictindex(const xdictindex&) = delete;
    xdictindex& operator=(const xdictindex&) = delete;

    bool isBuilt() const { return entries != nullptr; }
    /// Returns the entry of `key`, or the free one where it would be inserted.
    Entry* seek(const xdictkey& key) const
    {
        std::size_t i = key.hash & mask;
        while (entries[i].key != nullptr && (entries[i].hash != key.hash || !key.equals(entries[i].key)))
            i = (i + 1) & mask;
        return &entries[i];
    }
    /// Makes room for one more entry. True when that moved all entries.
    /// @throws std::bad_alloc  nothing is changed
    bool reserve()
    {
        if ((count + std::size_t{1}) * 8 <= (mask + std::size_t{1}) * 5)
            return false;
        grow();
        return true;
    }
    /// Inserts a missing key in the free entry that seek returned; there must be room for it.
    void insert(Entry* place, Entry entry)
    {
        *place = entry;
        ++count;
    }
    /// Adds a missing key.
    /// @throws std::bad_alloc
    void add(const xdictkey& key, char* text, std::uint32_t place)
    {
        reserve();
        insert(seek(key), {text, place, key.hash});
    }
    void swap(xdictindex& other) noexcept
    {
        std::swap(mask, other.mask);
        std::swap(count, other.count);
        std::swap(entries, other.entries);
    }
    /// Removes an entry by backward shift, so that no search ends at a gap before reaching entries added
    /// later.
    void erase(Entry* entry);
    /// Calls visit(entry) for each entry, in an unchanging order.
    template<class Visit>
    void forEach(Visit visit)
    {
        for (std::size_t i = 0; i < size(); ++i)
            if (entries[i].key != nullptr)
                visit(entries[i]);
    }
    /// Changes the place of each entry to places[old place]. Free entries are renumbered too, which avoids an
    /// unpredictable branch: their numbers are 0 or earlier values of `places`, so each of `places` must be a
    /// valid place.
    void renumber(const std::uint32_t* places)
    {
        for (std::size_t i = 0; i < size(); ++i)
            entries[i].place = places[entries[i].place];
    }

private:
    std::size_t size() const { return isBuilt() ? mask + std::size_t{1} : 0; }
    void grow();

    std::uint32_t mask = 0;
    std::uint32_t count = 0;
    Entry* entries = nullptr;
};
