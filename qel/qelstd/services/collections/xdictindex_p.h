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
    char* key;           ///< a text of xdictkeys
    std::uint32_t place; ///< position of the entry in the block
    std::uint32_t hash;
};

/// Finds the entry of a key: open addressing with linear probing and a per-table seed, so that chosen keys
/// cannot force collisions. Each entry has a tag, one byte with seven bits of its hash; eight tags are compared
/// at once, and most entries of other keys are never read. Allocates no memory until the first reserve.
class xdictindex
{
public:
    using Entry = xdictindexentry;

    xdictindex() = default;
    ~xdictindex() { std::free(entries); }
    xdictindex(const xdictindex&) = delete;
    xdictindex& operator=(const xdictindex&) = delete;

    bool isBuilt() const { return entries != nullptr; }
    struct Found
    {
        Entry* at; ///< of the key, or the free one where it would be inserted
        bool isThere;
    };
    /// Finds the entry of `key`. Calls expect(entry) before it reads the text of an entry, most likely the one
    /// sought.
    template<class Expect>
    Found seek(const xdictkey& key, Expect expect) const
    {
        // Most entries are where their hash says.
        const std::size_t home = key.hash & mask;
        const unsigned char tag = tagOf(key.hash);
        if (tags()[home] == tag && entries[home].hash == key.hash) {
            expect(entries[home]);
            if (key.equals(entries[home].key)) [[likely]]
                return {&entries[home], true};
        }
        // Whether the home is free is not asked by itself: that branch cannot be predicted.
        return seekFrom(home, key, tag, expect);
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
        setTag(static_cast<std::size_t>(place - entries), tagOf(entry.hash));
        ++count;
    }
    /// Adds a missing key.
    /// @throws std::bad_alloc
    void add(const xdictkey& key, char* text, std::uint32_t place)
    {
        reserve();
        insert(seek(key, [](const Entry&) {}).at, {text, place, key.hash});
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
            if (tags()[i] != 0)
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
    static constexpr std::uint64_t eachByte = 0x0101010101010101;
    static constexpr std::uint64_t highBits = 0x8080808080808080;

    /// Of the entries, which they follow: 0 if free. The first eight are repeated at the end.
    unsigned char* tags() const { return reinterpret_cast<unsigned char*>(entries + mask + 1); }
    static unsigned char tagOf(std::uint32_t hash) { return static_cast<unsigned char>(hash >> 25 | 0x80); }
    /// The tags of eight entries, the first in the lowest byte.
    std::uint64_t tagsFrom(std::size_t i) const
    {
        std::uint64_t group;
        std::memcpy(&group, tags() + i, 8);
        if constexpr (std::endian::native == std::endian::big)
            group = __builtin_bswap64(group);
        return group;
    }
    static std::size_t byteOf(std::uint64_t bits)
    {
        return static_cast<std::size_t>(std::countr_zero(bits)) / 8;
    }
    void setTag(std::size_t i, unsigned char tag)
    {
        tags()[i] = tag;
        if (i < 8)
            tags()[mask + std::size_t{1} + i] = tag;
    }
    template<class Expect>
    Found seekFrom(std::size_t i, const xdictkey& key, unsigned char tag, Expect expect) const
    {
        for (;; i = (i + 8) & mask) {
            const std::uint64_t group = tagsFrom(i);
            const std::uint64_t free = ~group & highBits;
            const std::uint64_t other = group ^ eachByte * tag;
            // The high bit of each byte that is zero, as far as the first free entry.
            std::uint64_t same =
                ~(((other & ~highBits) + ~highBits) | other | ~highBits) & ((free & -free) - 1);
            for (; same != 0; same &= same - 1) {
                Entry& entry = entries[(i + byteOf(same)) & mask];
                if (entry.hash != key.hash)
                    continue;
                expect(entry);
                if (key.equals(entry.key))
                    return {&entry, true};
            }
            if (free != 0)
                return {&entries[(i + byteOf(free)) & mask], false};
        }
    }
    std::size_t size() const { return isBuilt() ? mask + std::size_t{1} : 0; }
    void grow();

    std::uint32_t mask = 0;
    std::uint32_t count = 0;
    Entry* entries = nullptr;
};
