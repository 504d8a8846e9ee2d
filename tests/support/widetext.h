#pragma once

#include <string_view>
#include <vector>

/// A text in the form that the wide members take: `WideText(u"abc")` converts to `const unsigned short*`.
class WideText
{
public:
    WideText(std::u16string_view text) : units(text.begin(), text.end()) { units.push_back(0); }
    operator const unsigned short*() const { return units.data(); }
    unsigned short* writable() { return units.data(); }

private:
    std::vector<unsigned short> units;
};

inline std::u16string_view::size_type wideLength(const unsigned short* text)
{
    std::u16string_view::size_type length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

/// The same text for comparisons; "(null)" for the null pointer.
inline std::u16string wideString(const unsigned short* text)
{
    return text == nullptr ? u"(null)" : std::u16string(text, text + wideLength(text));
}
