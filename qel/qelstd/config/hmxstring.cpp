#include <algorithm>
#include <cstring>
#include <string>

#include <qel/base/btkmemory.h>
#include <qel/xobject.h>

#include "hmxconfigfile.h"

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

/// The first `c` of `s`, which may be null or a marker; null when there is none. The terminator does not
/// count.
const char* findIn(const char* s, char c)
{
    return qelIsObject(s) && c != '\0' ? std::strchr(s, c) : nullptr;
}

/// A part of a text; null when there is nothing in it.
xstring partOf(const char* begin, const char* end)
{
    return begin == end ? xstring() : std::string(begin, end).c_str();
}

} // namespace

bool StrPress(char* s, char c)
{
    if (findIn(s, c) == nullptr)
        return false;
    char* const end = s + std::strlen(s);
    *std::remove(s, end, c) = '\0';
    return true;
}

char* StrPress(const char* s)
{
    if (!qelIsObject(s) || std::strpbrk(s, " \t") == nullptr)
        return nullptr;
    char* const copy = btkStrDup(s);
    *std::remove_if(copy, copy + std::strlen(copy), isBlank) = '\0';
    return copy;
}

void StrPress(xstring& s)
{
    if (char* const pressed = StrPress(s.CastToCString())) {
        s = pressed;
        delete[] pressed;
    }
}

bool StrSplit(const char* s, char c, xstring& before, xstring& after)
{
    const char* const at = findIn(s, c);
    if (at == nullptr)
        return false;
    xstring first = partOf(s, at);
    after = partOf(at + 1, at + std::strlen(at)); // `s` may be the text of either
    before.swap(first);
    return true;
}

xstring StrSplitBefore(const char* s, char c)
{
    const char* const at = findIn(s, c);
    return at == nullptr ? xstring() : partOf(s, at);
}

xstring StrSplitAfter(const char* s, char c)
{
    const char* const at = findIn(s, c);
    return at == nullptr ? xstring() : partOf(at + 1, at + std::strlen(at));
}
