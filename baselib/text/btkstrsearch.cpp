#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include <qel/base/btkstring.h>

#include "btkcharacter_p.h"

namespace {

/// Searches for one text in others, in time proportional to their lengths.
template<typename C>
class Finder
{
public:
    Finder(const C* wanted, std::size_t length) : sub(wanted), size(length) {} // not 0; not copied
    Finder(const Finder&) = delete;
    Finder& operator=(const Finder&) = delete;

    /// Returns the first occurrence between `text` and `end`, or null.
    const C* find(const C* text, const C* end) const
    {
        // In most texts few places begin correctly, and the following characters soon differ.
        std::size_t cost = 0;
        for (const C* at = text; static_cast<std::size_t>(end - at) >= size; ++at) {
            if (cost > 4 * static_cast<std::size_t>(at - text) + 1000)
                return findByBorders(at, end);
            at = findFirst(at, end - size + 1);
            if (at == nullptr || std::memcmp(at, sub, size * sizeof(C)) == 0)
                return at;
            cost += size;
        }
        return nullptr;
    }

private:
    /// The first place between `text` and `end` that begins correctly, or null.
    const C* findFirst(const C* text, const C* end) const
    {
        if constexpr (sizeof(C) == 1)
            return static_cast<const C*>(std::memchr(text, *sub, static_cast<std::size_t>(end - text)));
        const C* const found = std::find(text, end, *sub);
        return found == end ? nullptr : found;
    }

    /// The Knuth-Morris-Pratt search: linear, whatever repeats in the texts.
    const C* findByBorders(const C* text, const C* end) const
    {
        if (borders.empty()) {
            borders.resize(size);
            for (std::size_t i = 1; i < size; ++i)
                borders[i] = extend(borders[i - 1], sub[i]);
        }
        std::size_t matched = 0;
        while (matched < size) {
            if (text == end)
                return nullptr;
            matched = extend(matched, *text++);
        }
        return text - matched;
    }

    /// The length of the prefix of `sub` that ends with `unit`, when `matched` of it ended before.
    std::size_t extend(std::size_t matched, C unit) const
    {
        while (matched > 0 && sub[matched] != unit)
            matched = borders[matched - 1];
        return sub[matched] == unit ? matched + 1 : 0;
    }

    const C* sub;
    std::size_t size;
    /// At i: the longest start of `sub` that also ends at i, not at its front. Filled when first needed.
    mutable std::vector<std::size_t> borders;
};

/// A part of a pattern without stars.
template<typename C>
struct Part
{
    const C* begin;
    const C* end;
};

/// Returns the end of `part` when the text begins with a match of it, else null.
template<typename C>
const C* matchHere(const C* text, Part<C> part)
{
    for (const C* p = part.begin; p != part.end;) {
        if (*text == *p && btkIsAscii(*p)) {
            ++text;
            ++p;
            continue;
        }
        const std::size_t size = btkCharSize(text);
        if (size == 0)
            return nullptr;
        if (*p == '?') {
            ++p;
        } else {
            if (btkCharSize(p) != size || !std::equal(text, text + size, p))
                return nullptr;
            p += size;
        }
        text += size;
    }
    return text;
}

/// Whether equal bytes are equal characters: nothing in the part is a wildcard or invalid.
template<typename C>
bool isPlain(Part<C> part)
{
    for (const C* p = part.begin; p != part.end; p += btkCharSize(p))
        if (*p == '?' || (sizeof(C) == 1 && !btkIsAscii(*p) && btkCharSize(p) == 1))
            return false;
    return true;
}

template<typename C>
std::size_t countCharacters(const C* text, const C* end)
{
    std::size_t characters = 0;
    for (; text != end; text += btkCharSize(text))
        ++characters;
    return characters;
}

/// Shift-and matcher for a part that has a `?`: one bit for each character of the part tells whether the text
/// read so far ends with the part up to there.
template<typename C>
class PartFinder
{
public:
    explicit PartFinder(Part<C> part)
        : length(countCharacters(part.begin, part.end)), words((length + 63) / 64)
    {
        std::uint64_t greatest = 0;
        for (const C* p = part.begin; p != part.end; p += btkCharSize(p))
            greatest = std::max(greatest, codeOf(p, btkCharSize(p)));
        while (greatest >> digits * 4 != 0)
            ++digits;

        rows.resize((digits * 16 + 1) * words);
        std::size_t index = 0;
        for (const C* p = part.begin; p != part.end; p += btkCharSize(p), ++index) {
            const auto set = [&](std::uint64_t* row) { row[index / 64] |= std::uint64_t(1) << index % 64; };
            if (*p == '?')
                for (unsigned row = 0; row <= digits * 16; ++row)
                    set(&rows[row * words]);
            else
                for (unsigned digit = 0; digit < digits; ++digit)
                    set(rowOf(codeOf(p, btkCharSize(p)), digit));
        }
    }

    /// Returns the end of the first match, or null.
    const C* findEnd(const C* text)
    {
        std::vector<std::uint64_t> matched(words);
        const std::uint64_t whole = std::uint64_t(1) << (length - 1) % 64;
        while (const std::size_t size = btkCharSize(text)) {
            const std::uint64_t code = codeOf(text, size);
            const bool isKnown = code >> digits * 4 == 0;
            const std::uint64_t* const row = isKnown ? rowOf(code, 0) : &rows[digits * 16 * words];
            const std::uint64_t* const next = isKnown && digits > 1 ? rowOf(code, 1) : row;
            std::uint64_t carry = 1;
            for (std::size_t w = 0; w < words; ++w) {
                const std::uint64_t before = matched[w];
                matched[w] = (before << 1 | carry) & row[w] & next[w];
                carry = before >> 63;
            }
            for (unsigned digit = 2; isKnown && digit < digits; ++digit)
                for (std::size_t w = 0; w < words; ++w)
                    matched[w] &= rowOf(code, digit)[w];
            text += size;
            if ((matched.back() & whole) != 0)
                return text;
        }
        return nullptr;
    }

private:
    /// The bytes of a character as a number.
    static std::uint64_t codeOf(const C* character, std::size_t size)
    {
        std::uint64_t code = 0;
        for (std::size_t i = 0; i < size; ++i)
            code = code << 8 | static_cast<std::make_unsigned_t<C>>(character[i]);
        return code;
    }

    std::uint64_t* rowOf(std::uint64_t code, unsigned digit)
    {
        return &rows[(digit * 16 + (code >> digit * 4 & 15)) * words];
    }

    std::size_t length;
    std::size_t words;
    // Codes are compared in digits of four bits, as many as the part's need. A row has a bit for each
    // character of the part: whether it is `?` or has that value in that digit; in the last row, whether it
    // is `?`.
    unsigned digits = 1;
    std::vector<std::uint64_t> rows;
};

/// Returns the end of the first match of `part` in the text, which ends at `textEnd`; else null.
template<typename C>
const C* matchSomewhere(const C* text, const C* textEnd, Part<C> part)
{
    if (!isPlain(part))
        return PartFinder<C>(part).findEnd(text);
    const auto size = static_cast<std::size_t>(part.end - part.begin);
    const C* const found = Finder<C>(part.begin, size).find(text, textEnd);
    return found == nullptr ? nullptr : found + size;
}

/// Calls `found(place)` for the first `most` occurrences, from left to right and not overlapping; the empty
/// text has none.
template<typename C, typename Found>
int eachOccurrence(const C* text, const C* end, const C* from, int most, Found found)
{
    const std::size_t size = Strlen(from);
    if (size == 0)
        return 0;
    const Finder<C> finder(from, size);
    int n = 0;
    for (; n < most; ++n) {
        const C* const place = finder.find(text, end);
        if (place == nullptr)
            break;
        found(place);
        text = place + size;
    }
    return n;
}

} // namespace

template<btkCharType C>
int btkStringFindSubstring(const C* text, const C* sub, std::size_t length)
{
    if (*sub == 0)
        return 0;
    int position = -1;
    eachOccurrence(text, text + length, sub, 1,
                   [&](const C* place) { position = static_cast<int>(place - text); });
    return position;
}

template<btkCharType C>
bool btkStringMatch(const C* text, const C* pattern)
{
    const C* const textEnd = text + Strlen(text);
    const C* const patternEnd = pattern + Strlen(pattern);
    const auto nextPart = [&] { return Part<C>{pattern, std::find(pattern, patternEnd, '*')}; };

    Part<C> part = nextPart();
    text = matchHere(text, part);
    if (text == nullptr || part.end == patternEnd)
        return text == textEnd;

    // Each part between two stars is matched at its first place: a later place never helps the following
    // parts.
    for (;;) {
        pattern = part.end + 1;
        part = nextPart();
        if (part.end == patternEnd)
            break;
        if (part.begin != part.end)
            text = matchSomewhere(text, textEnd, part);
        if (text == nullptr)
            return false;
    }

    const std::size_t needed = countCharacters(part.begin, part.end);
    const std::size_t left = countCharacters(text, textEnd);
    return needed <= left && matchHere(text + btkStringPrefixLength(text, left - needed), part) == textEnd;
}

template<btkCharType C>
int btkStringFind(const C* text, const C* from, int start, int count, int* firstPos)
{
    const C* const begin = text + btkStringPrefixLength(text, static_cast<std::size_t>(std::max(start, 0)));
    int first = -1;
    const int n =
        eachOccurrence(begin, begin + Strlen(begin), from, count < 0 ? INT_MAX : count, [&](const C* place) {
            if (first < 0)
                first = static_cast<int>(place - text);
        });
    if (n > 0)
        *firstPos = first;
    return n;
}

template<btkCharType C>
void btkStringSubstitute(C* out, const C* text, const C* from, const C* to, int count)
{
    const std::size_t fromSize = Strlen(from);
    const std::size_t toSize = Strlen(to);
    const auto copy = [&out](const C* what, std::size_t length) {
        std::memmove(out, what, length * sizeof(C));
        out += length;
    };
    const C* const end = text + Strlen(text);
    eachOccurrence(text, end, from, count, [&](const C* place) {
        copy(text, static_cast<std::size_t>(place - text));
        copy(to, toSize);
        text = place + fromSize;
    });
    copy(text, static_cast<std::size_t>(end - text));
    *out = 0;
}

#define BTK_INSTANTIATE(C)                                                \
    template int btkStringFindSubstring(const C*, const C*, std::size_t); \
    template bool btkStringMatch(const C*, const C*);                     \
    template int btkStringFind(const C*, const C*, int, int, int*);       \
    template void btkStringSubstitute(C*, const C*, const C*, const C*, int);
BTK_INSTANTIATE(char)
BTK_INSTANTIATE(unsigned short)
