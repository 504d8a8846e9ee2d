#pragma once

#include <compare>

#include <qel/base/baseexport.h>

/// A duration, or a point on a clock as the time since its start, in microseconds. Never negative, and
/// saturating: a result below zero is 0, a result too large is the greatest value.
class BASE_API btkTimeval
{
public:
    constexpr btkTimeval() = default;
    constexpr btkTimeval(long long seconds, long long microseconds)
        : count(seconds < 0 ? 0 : Sum(Product(seconds), microseconds))
    {
    }
    /// Seconds; NaN counts as 0.
    constexpr explicit btkTimeval(double seconds)
        : count(!(seconds > 0)              ? 0
                : seconds < greatestSeconds ? static_cast<long long>(seconds * perSecond)
                                            : greatest)
    {
    }

    /// The limit that means "without limit": 2147483647 seconds. All longer ones mean the same.
    static constexpr btkTimeval Forever() { return {2147483647, 0}; }
    /// Returns the time now on the monotonic clock, which cannot be set.
    static btkTimeval Now();
    /// Returns the present calendar time, since 1970-01-01 00:00 UTC.
    static btkTimeval GetTimeOfDay();

    /// Whether it is at least Forever().
    constexpr bool IsForever() const { return count >= Forever().count; }
    /// Whole seconds, and the microseconds beyond them (0..999999).
    constexpr long long GetSeconds() const { return count / perSecond; }
    constexpr int GetMicroseconds() const { return static_cast<int>(count % perSecond); }
    constexpr double ToSeconds() const { return static_cast<double>(count) / perSecond; }

    friend constexpr btkTimeval operator+(btkTimeval a, btkTimeval b) { return Of(Sum(a.count, b.count)); }
    /// 0 when `b` is the later one.
    friend constexpr btkTimeval operator-(btkTimeval a, btkTimeval b) { return Of(Sum(a.count, -b.count)); }
    friend constexpr auto operator<=>(btkTimeval a, btkTimeval b) = default;

private:
    static constexpr int perSecond = 1000000;
    static constexpr long long greatest = 0x7FFFFFFFFFFFFFFF;
    static constexpr double greatestSeconds = static_cast<double>(greatest) / perSecond;

    static constexpr btkTimeval Of(long long microseconds)
    {
        btkTimeval made;
        made.count = microseconds;
        return made;
    }
    static constexpr long long Product(long long seconds)
    {
        return seconds > greatest / perSecond ? greatest : seconds * perSecond;
    }
    static constexpr long long Sum(long long a, long long b)
    {
        return b > greatest - a ? greatest : a + b < 0 ? 0 : a + b;
    }

    long long count = 0; // microseconds
};
