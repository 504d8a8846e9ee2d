#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Network byte order: the most significant byte first.

/// The unsigned word in which a number of 1, 4 or 8 bytes is transferred.
template<class Number>
using btkWord = std::conditional_t<sizeof(Number) == 1, std::uint8_t,
                                   std::conditional_t<sizeof(Number) == 4, std::uint32_t, std::uint64_t>>;

/// Converts between the machine's byte order and network byte order.
template<class Word>
constexpr Word btkNetworkOrder(Word word)
{
    static_assert(std::is_same_v<Word, btkWord<Word>>);
    if constexpr (std::endian::native == std::endian::big || sizeof(Word) == 1)
        return word;
    else if constexpr (sizeof(Word) == 4)
        return __builtin_bswap32(word);
    else
        return __builtin_bswap64(word);
}

/// Returns the number whose bytes are at `from`.
template<class Number>
Number btkGetNetwork(const char* from)
{
    btkWord<Number> word;
    std::memcpy(&word, from, sizeof word);
    return std::bit_cast<Number>(btkNetworkOrder(word));
}

/// Writes the bytes of `number` to `to`.
template<class Number>
void btkPutNetwork(char* to, Number number)
{
    const auto word = btkNetworkOrder(std::bit_cast<btkWord<Number>>(number));
    std::memcpy(to, &word, sizeof word);
}
