#pragma once

#include <cstdint>
#include <type_traits>

#include <qel/qelthrow.h>
#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

// What sequences and dictionaries share.

/// Whether the bits of a T may be moved to another place and be that T there, whether a T that has been moved
/// from is in the default state, and whether a T in its default state owns nothing. Specialize it for classes
/// that are so.
template<class T>
inline constexpr bool qelIsMovedByBits = std::is_trivially_copyable_v<T>;
template<>
inline constexpr bool qelIsMovedByBits<xstring> = true;
template<>
inline constexpr bool qelIsMovedByBits<xany> = true;

/// Whether nothing but this library's own code runs when a value ends. Overload it for classes of which that
/// is known.
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

/// Whether `a` lies below `b`, which may point into another block.
inline bool qelIsBelow(const void* a, const void* b)
{
    return reinterpret_cast<std::uintptr_t>(a) < reinterpret_cast<std::uintptr_t>(b);
}
