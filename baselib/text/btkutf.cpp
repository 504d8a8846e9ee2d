#include "btkutf.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint32_t replacement = 0xFFFD;
// A zero ends every sequence, so nothing beyond it is read.
constexpr std::size_t untilZero = 4;

struct Character
{
    std::uint32_t code;
    std::size_t size; // bytes
};

bool isHighSurrogate(std::uint32_t unit)
{
    return (unit & 0xFC00u) == 0xD800u;
}

bool isLowSurrogate(std::uint32_t unit)
{
    return (unit & 0xFC00u) == 0xDC00u;
}

/// The character at the start of `left` bytes, at least one.
Character decode(const char* text, std::size_t left)
{
    const auto byte = [text](std::size_t i) -> std::uint32_t { return static_cast<unsigned char>(text[i]); };
    const std::uint32_t lead = byte(0);
    if (lead < 0x80)
        return {lead, 1};

    const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || size > left)
        return {replacement, 1};
    std::uint32_t code = lead & (0xFFu >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0u) != 0x80u)
            return {replacement, 1};
        code = code << 6 | (byte(i) & 0x3Fu);
    }
    static constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[size] || code > 0x10FFFF || (code & 0x1FF800u) == 0xD800u)
        return {replacement, 1};
    return {code, size};
}

/// Returns the number of leading ASCII bytes, checked several at a time: some before another byte, and up to seven in
/// all, may be left out.
std::size_t asciiRun(const char* text, std::size_t length)
{
    using Eight = std::uint64_t;
    using Sixteen [[gnu::vector_size(16)]] = Eight;
    const auto isAscii = [text]<typename Word>(std::size_t at, Word all, std::size_t words) {
        for (std::size_t i = 0; i < words; ++i) {
            Word word;
            std::memcpy(&word, text + at + i * sizeof(Word), sizeof(Word));
            all |= word;
        }
        Eight bits;
        if constexpr (sizeof(Word) == sizeof(Sixteen))
            bits = all[0] | all[1];
        else
            bits = all;
        return (bits & 0x8080808080808080u) == 0;
    };
    std::size_t at = 0;
    // The last block overlaps the one before it.
    const auto skip = [&]<typename Word>(Word none, std::size_t words) {
        const std::size_t size = words * sizeof(Word);
        while (at + size <= length && isAscii(at, none, words))
            at += size;
        if (at > 0 && at < length && length - at < size && isAscii(length - size, none, words))
            at = length;
    };
    skip(Sixteen{}, 8);
    skip(Sixteen{}, 1);
    skip(Eight{}, 1);
    return at;
}

/// Calls `ascii(text, n)` for runs of ASCII and `other(character)` for each other character.
template<typename Ascii, typename Other>
void walk(const char* text, std::size_t length, Ascii ascii, Other other)
{
    while (length > 0) {
        std::size_t done = asciiRun(text, length);
        if (done > 0) {
            ascii(text, done);
        } else {
            const Character c = decode(text, length);
            other(c);
            done = c.size;
        }
        text += done;
        length -= done;
    }
}

} // namespace

std::size_t btkMBCharSize(const char* text)
{
    return *text == 0 ? 0 : decode(text, untilZero).size;
}

std::size_t btkMBByteCount(const char* text, std::size_t characters)
{
    // A character has at least one byte: that many can be read, or the text ends before.
    const std::size_t sure = strnlen(text, characters);
    if (sure < characters)
        return sure;
    std::size_t at = asciiRun(text, characters);
    for (characters -= at; characters > 0 && text[at] != 0; --characters)
        at += decode(text + at, untilZero).size;
    return at;
}

std::string_view btkMBPart(std::string_view text, std::size_t from, std::size_t to)
{
    // One look at all bytes up to the end serves most texts.
    if (from <= to && to <= text.size() && asciiRun(text.data(), to) == to)
        return text.substr(from, to - from);
    const auto skip = [&text](std::size_t characters) {
        std::size_t at = 0;
        if (characters >= text.size())
            at = text.size();
        else
            at = asciiRun(text.data(), characters), characters -= at;
        for (; characters > 0 && at < text.size(); --characters)
            at += decode(text.data() + at, text.size() - at).size;
        return at;
    };
    text.remove_prefix(skip(from));
    return text.substr(0, skip(to > from ? to - from : 0));
}

std::size_t btkMBCharCount(const char* text, std::size_t length)
{
    std::size_t at = asciiRun(text, length);
    std::size_t characters = at;
    while (at < length) {
        at += decode(text + at, untilZero).size;
        if (at <= length)
            ++characters;
    }
    return characters;
}

std::size_t btkMBToWCLength(const char* text, std::size_t length)
{
    std::size_t units = 0;
    walk(
        text, length, [&](const char*, std::size_t n) { units += n; },
        [&](const Character& c) { units += c.code > 0xFFFF ? 2 : 1; });
    return units;
}

void btkMBToWC(const char* text, std::size_t length, unsigned short* wide)
{
    walk(
        text, length,
        [&](const char* run, std::size_t n) {
            unsigned short* const units = wide;
            for (std::size_t i = 0; i < n; ++i)
                units[i] = static_cast<unsigned char>(run[i]);
            wide = units + n;
        },
        [&](const Character& c) {
            if (c.code > 0xFFFF) {
                *wide++ = static_cast<unsigned short>(0xD800u + ((c.code - 0x10000u) >> 10));
                *wide++ = static_cast<unsigned short>(0xDC00u + (c.code & 0x3FFu));
            } else {
                *wide++ = static_cast<unsigned short>(c.code);
            }
        });
}

std::size_t btkWCToMBLength(const unsigned short* text, std::size_t length)
{
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint32_t unit = text[i];
        if (isHighSurrogate(unit)) {
            if (i + 1 == length || !isLowSurrogate(text[i + 1]))
                return btkNoLength;
            ++i;
            bytes += 4;
        } else if (isLowSurrogate(unit)) {
            return btkNoLength;
        } else {
            bytes += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        }
    }
    return bytes;
}

void btkWCToMB(const unsigned short* text, std::size_t length, char* mb)
{
    const auto put = [&mb](std::uint32_t byte) { *mb++ = static_cast<char>(byte); };
    const auto follow = [&put](std::uint32_t bits) { put(0x80u | (bits & 0x3Fu)); };
    for (std::size_t i = 0; i < length; ++i) {
        std::uint32_t code = text[i];
        if (code < 0x80) {
            put(code);
        } else if (code < 0x800) {
            put(0xC0u | code >> 6);
            follow(code);
        } else if (!isHighSurrogate(code)) {
            put(0xE0u | code >> 12);
            follow(code >> 6);
            follow(code);
        } else {
            code = 0x10000u + ((code & 0x3FFu) << 10) + (text[++i] & 0x3FFu);
            put(0xF0u | code >> 18);
            follow(code >> 12);
            follow(code >> 6);
            follow(code);
        }
    }
}
