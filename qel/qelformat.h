#pragma once

#include <qel/xstring.h>

// std::format of strings, where the standard library has it.
#if __has_include(<format>)
#include <format>

/// Formats the multibyte form as a std::string_view; the null string as "nil".
template<>
struct std::formatter<xstring> : std::formatter<std::string_view>
{
    template<class Context>
    auto format(const xstring& s, Context& context) const
    {
        return std::formatter<std::string_view>::format(s.isNull() ? std::string_view("nil") : s.view(),
                                                        context);
    }
};
#endif
