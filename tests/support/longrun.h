#pragma once

#include <cstdlib>

/// The amount of work of a test: `few`, or `many` where the environment has QELSTD_LONG_TESTS.
template<class Count>
Count ofALongRun(Count few, Count many)
{
    return std::getenv("QELSTD_LONG_TESTS") != nullptr ? many : few;
}
