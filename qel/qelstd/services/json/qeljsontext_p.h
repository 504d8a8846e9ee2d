#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Characters of JSON texts.

namespace qel::json {

/// Returns the bytes of the UTF-8 character at the start of `text`; 0 if there is none that is valid.
inline std::size_t utf8Size(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto follows = [&](std::size_t i) { return (byte(i) & 0xC0) == 0x80; };
    if (text.empty())
        return 0;
    const unsigned char first = byte(0);
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4)
        return 0;
    const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (text.size() < size)
        return 0;
    for (std::size_t i = 1; i < size; ++i)
        if (!follows(i))
            return 0;
    const unsigned char second = byte(1);
    const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool isSurrogate = first == 0xED && second > 0x9F;
    const bool isBeyond = first == 0xF4 && second > 0x8F;
    return isOverlong || isSurrogate || isBeyond ? 0 : size;
}

/// Appends the UTF-8 form of a code point.
inline void appendUtf8(std::string& to, unsigned code)
{
    const auto put = [&](unsigned byte) { to += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | code >> 6);
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

inline bool isHighSurrogate(unsigned unit)
{
    return (unit & 0xFC00) == 0xD800;
}
inline bool isLowSurrogate(unsigned unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

/// The code point of a pair.
inline unsigned joinSurrogates(unsigned high, unsigned low)
{
    return 0x10000 + ((high & 0x3FF) << 10) + (low & 0x3FF);
}

/// The longest start of `text` of at most `most` bytes that ends with a whole character.
inline std::string_view cutText(std::string_view text, std::size_t most)
{
    if (text.size() <= most)
        return text;
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80)
        --most;
    return text.substr(0, most);
}

/// Appends a member to the path of an error: `.age`, or `["a b"]`.
inline void appendMember(std::string& path, std::string_view name)
{
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";
    constexpr std::size_t shown = 64;
    const std::string_view start = cutText(name, shown);
    if (!name.empty() && start.size() == name.size() &&
        name.find_first_not_of(plain) == std::string_view::npos) {
        path.append(1, '.').append(name);
        return;
    }
    path += "[\"";
    for (const char c : start)
        path += static_cast<unsigned char>(c) < ' ' || c == '"' ? '?' : c;
    path += start.size() < name.size() ? "...\"]" : "\"]";
}

inline void appendIndex(std::string& path, int index)
{
    path.append(1, '[').append(std::to_string(index)).append(1, ']');
}

} // namespace qel::json
