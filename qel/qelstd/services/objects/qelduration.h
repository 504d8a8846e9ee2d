#pragma once

/// Whether D is a std::chrono::duration, for limits that are also taken in seconds.
template<class D>
concept qelDuration = requires(const D& d)
{
    D::period::num;
    D::period::den;
    d.count();
};

/// Returns a duration in seconds.
template<qelDuration D>
constexpr double qelSeconds(const D& d)
{
    return static_cast<double>(d.count()) * static_cast<double>(D::period::num) /
           static_cast<double>(D::period::den);
}
