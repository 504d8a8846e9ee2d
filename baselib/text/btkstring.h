#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>

#include <qel/base/baseexport.h>

// Operations on texts of either width: multibyte (UTF-8, `char`) and wide (UTF-16, `unsigned short`). Every
// text ends at its first zero. Lengths and positions are bytes or units of the text, at most INT_MAX; indices
// count characters: UTF-8 characters of a multibyte text (<qel/base/btkutf.h>), units of a wide one.
// Independent of the locale. Safe to call from any thread.

template<typename C>
concept btkCharType = std::same_as<C, char> || std::same_as<C, unsigned short>;

/// Returns the length of `text`, looking at its first `most` bytes only: at most that.
inline std::size_t btkLengthWithin(const char* text, std::size_t most)
{
    const void* const end = std::memchr(text, 0, most);
    return end == nullptr ? most : static_cast<std::size_t>(static_cast<const char*>(end) - text);
}

/// Returns the length of `text`.
template<btkCharType C>
std::size_t Strlen(const C* text)
{
    if constexpr (sizeof(C) == 1) {
        return std::strlen(text);
    } else {
        const C* end = text;
        while (*end != 0)
            ++end;
        return static_cast<std::size_t>(end - text);
    }
}

/// Returns the length of the first `characters` characters of `text`, or of all if there are fewer. Reads
/// nothing behind them: a longer text needs no terminator.
template<btkCharType C>
BASE_API std::size_t btkStringPrefixLength(const C* text, std::size_t characters);

/// Returns a multibyte copy of `wide`, or null when it has an unpaired surrogate. The caller frees it with
/// `delete[]`.
BASE_API char* StrneW(const unsigned short* wide);

/// Reads a number that takes up the whole text; blanks and a plus sign may precede it, nothing may follow.
/// False, with `out` unchanged, when the text is not such a number or the number does not fit.
template<btkCharType C>
BASE_API bool btkStringToInt(const C* text, int* out);
template<btkCharType C>
BASE_API bool btkStringToDouble(const C* text, double* out);

/// Maps the letters a to z, or A to Z, in place.
template<btkCharType C>
BASE_API void btkStringToUpper(C* text);
template<btkCharType C>
BASE_API void btkStringToLower(C* text);

/// Returns the number of words: runs of characters not in `delimiters`.
template<btkCharType C>
BASE_API int btkStringGetNWords(const C* text, const C* delimiters);

/// Stores the positions where word `n`, counted from 0, starts and ends (behind its last character). False,
/// with both unchanged, when there is no such word.
template<btkCharType C>
BASE_API bool btkStringGetWord(const C* text, int n, const C* delimiters, int* start, int* end);

/// Returns the position of the first `sub`, or -1. The empty text is found at 0. `length` is Strlen(text).
template<btkCharType C>
BASE_API int btkStringFindSubstring(const C* text, const C* sub, std::size_t length);
template<btkCharType C>
int btkStringFindSubstring(const C* text, const C* sub)
{
    return btkStringFindSubstring(text, sub, Strlen(text));
}

/// Whether the whole text matches `pattern`, in which `*` matches any characters, including none, and `?`
/// matches one. Takes time proportional to the length of the texts; a part between two stars that has a `?`
/// counts as one step for each 64 of its characters.
template<btkCharType C>
BASE_API bool btkStringMatch(const C* text, const C* pattern);

/// Counts the occurrences of `from`, not empty, from the character with index `start` on; occurrences do not
/// overlap, and counting stops at `count` unless it is negative. `firstPos` is the position of the first one,
/// unchanged when there is none.
template<btkCharType C>
BASE_API int btkStringFind(const C* text, const C* from, int start, int count, int* firstPos);

/// Writes `text`, with its first `count` occurrences of `from` replaced by `to` (there must be that many),
/// and a terminator to `out`. `out` may be `text` itself when `to` is not longer than `from`; otherwise they
/// must not overlap.
template<btkCharType C>
BASE_API void btkStringSubstitute(C* out, const C* text, const C* from, const C* to, int count);
