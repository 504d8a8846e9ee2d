#include "btkstring.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <type_traits>

#include "btkcharacter_p.h"

namespace {

/// Reads the number at the start of `text`, which must end with it.
template<typename T>
bool parseNumber(std::string_view text, T* out)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    if (text.starts_with('+') && !text.starts_with("+-"))
        text.remove_prefix(1);
    T value;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return false;
    *out = value;
    return true;
}

template<typename T>
bool parseNumber(const char* text, T* out)
{
    return parseNumber(std::string_view(text), out);
}

template<typename T>
bool parseNumber(const unsigned short* text, T* out)
{
    const unsigned short* const end = text + Strlen(text);
    if (std::any_of(text, end, [](unsigned short unit) { return unit >= 0x80; }))
        return false;
    std::string narrow(static_cast<std::size_t>(end - text), 0);
    std::transform(text, end, narrow.begin(), [](unsigned short unit) { return static_cast<char>(unit); });
    return parseNumber(std::string_view(narrow), out);
}

/// Flips the bit in which the two cases of a letter differ, for the 26 letters from `first` on.
template<typename C>
void mapLetters(C* text, char first)
{
    // Known in advance, so that the loop can be vectorized.
    C* const end = text + Strlen(text);
    for (; text != end; ++text) {
        const bool isLetter = static_cast<unsigned short>(*text - first) < 26;
        *text = static_cast<C>(*text ^ (isLetter ? 0x20 : 0));
    }
}

template<typename C>
class Delimiters
{
public:
    explicit Delimiters(const C* characters) : all(characters)
    {
        for (; *characters != 0; ++characters) {
            if (btkIsAscii(*characters))
                ascii[static_cast<unsigned char>(*characters)] = true;
            else
                hasOthers = true;
        }
    }

    /// Whether the character of `size` bytes at `text` is one of them.
    bool contain(const C* text, std::size_t size) const
    {
        if (btkIsAscii(*text))
            return ascii[static_cast<unsigned char>(*text)];
        if (hasOthers)
            for (const C* one = all; *one != 0; one += btkCharSize(one))
                if (btkCharSize(one) == size && std::equal(text, text + size, one))
                    return true;
        return false;
    }

private:
    const C* all;
    bool ascii[128] = {};
    bool hasOthers = false;
};

/// Calls `seen(start, end)` for each word until it returns false.
template<typename C, typename Seen>
void eachWord(const C* text, const C* delimiterCharacters, Seen seen)
{
    const Delimiters<C> delimiters(delimiterCharacters);
    const C* start = nullptr;
    for (const C* at = text;; at += btkCharSize(at)) {
        const std::size_t size = btkCharSize(at);
        if (size > 0 && !delimiters.contain(at, size)) {
            if (start == nullptr)
                start = at;
            continue;
        }
        if (start != nullptr && !seen(static_cast<int>(start - text), static_cast<int>(at - text)))
            return;
        start = nullptr;
        if (size == 0)
            return;
    }
}

} // namespace

template<btkCharType C>
std::size_t btkStringPrefixLength(const C* text, std::size_t characters)
{
    if constexpr (std::is_same_v<C, char>) {
        return btkMBByteCount(text, characters);
    } else {
        std::size_t length = 0;
        while (length < characters && text[length] != 0)
            ++length;
        return length;
    }
}

char* StrneW(const unsigned short* wide)
{
    const std::size_t length = Strlen(wide);
    const std::size_t size = btkWCToMBLength(wide, length);
    if (size == btkNoLength)
        return nullptr;
    char* const copy = new char[size + 1];
    btkWCToMB(wide, length, copy);
    copy[size] = 0;
    return copy;
}

template<btkCharType C>
bool btkStringToInt(const C* text, int* out)
{
    return parseNumber(text, out);
}

template<btkCharType C>
bool btkStringToDouble(const C* text, double* out)
{
    return parseNumber(text, out);
}

template<btkCharType C>
void btkStringToUpper(C* text)
{
    mapLetters(text, 'a');
}

template<btkCharType C>
void btkStringToLower(C* text)
{
    mapLetters(text, 'A');
}

template<btkCharType C>
int btkStringGetNWords(const C* text, const C* delimiters)
{
    int words = 0;
    eachWord(text, delimiters, [&](int, int) { return ++words, true; });
    return words;
}

template<btkCharType C>
bool btkStringGetWord(const C* text, int n, const C* delimiters, int* start, int* end)
{
    bool found = false;
    eachWord(text, delimiters, [&](int wordStart, int wordEnd) {
        if (n-- != 0)
            return true;
        *start = wordStart;
        *end = wordEnd;
        found = true;
        return false;
    });
    return found;
}

#define BTK_INSTANTIATE(C)                                             \
    template std::size_t btkStringPrefixLength(const C*, std::size_t); \
    template bool btkStringToInt(const C*, int*);                      \
    template bool btkStringToDouble(const C*, double*);                \
    template void btkStringToUpper(C*);                                \
    template void btkStringToLower(C*);                                \
    template int btkStringGetNWords(const C*, const C*);               \
    template bool btkStringGetWord(const C*, int, const C*, int*, int*);
BTK_INSTANTIATE(char)
BTK_INSTANTIATE(unsigned short)
