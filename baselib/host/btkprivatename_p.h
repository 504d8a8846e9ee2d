#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <sys/random.h>

#include <qel/base/btkretry.h>

// Names for files and folders that have not taken their place yet.

constexpr std::size_t btkNameDigits = 16;

/// Appends random digits to `name`. False, with the reason in errno, when the operating system gives none.
inline bool btkAppendDigits(std::string& name)
{
    std::uint64_t number;
    char text[btkNameDigits + 1];
    if (btkRetry([&] { return getrandom(&number, sizeof number, 0); }) != static_cast<ssize_t>(sizeof number))
        return false;
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    name.append(text);
    return true;
}

/// Whether `name` is `mark` with such digits.
inline bool btkIsPrivateName(std::string_view name, std::string_view mark = {})
{
    return name.size() == mark.size() + btkNameDigits && name.starts_with(mark) &&
           name.find_first_not_of("0123456789abcdef", mark.size()) == std::string_view::npos;
}
