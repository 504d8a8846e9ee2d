#pragma once

#include <cstdint>
#include <type_traits>

#include <qel/qelthrow.h>
#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

// Shared by sequences and dictionaries.

/// Whether T is trivially relocatable: copying the bits of a T moves it, a moved-from T is in the default
/// state, and a T in its default state owns nothing. Specialize it for such classes.
template<class T>
inline constexpr bool qelIsMovedByBits = std::is_trivially_copyable_v<T>;
template<>
inline constexpr bool qelIsMovedByBits<xstring> = true;
template<>
inline constexpr bool qelIsMovedByBits<xany> = true;
template<class T>
inline constexpr bool qelIsMovedByBits<xrchandle<T>> = true;

/// Whether destroying a value runs only this library's own code. Overload it for classes known to qualify.
template<class T>
bool qelEndsQuietly(const T&)
{
    return std::is_trivially_destructible_v<T>;
}
inline bool qelEndsQuietly(const xstring&)
{
    return true;
}
inline bool qelEndsQuietly(const xany& value)
{
    return value.getKind() != xanyObject;
}

/// Result of an iterator's `->` when `*it` returns by value: holds that value.
template<class T>
struct qelArrow
{
    /// The object of operator->.
    T value;
    T* operator->() { return &value; }
};

/// Whether the address `a` is below `b`, which may point into another block.
inline bool qelIsBelow(const void* a, const void* b)
{
    return reinterpret_cast<std::uintptr_t>(a) < reinterpret_cast<std::uintptr_t>(b);
}
