#pragma once

#include <cstdlib>

/// How much of something a test does: `few`, or `many` where the environment has QELSTD_LONG_TESTS.
template<class Count>
Count ofALongRun(Count few, Count many)
{
    return std::getenv("QELSTD_LONG_TESTS") != nullptr ? many : few;
}
