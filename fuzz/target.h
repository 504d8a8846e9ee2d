#pragma once

// What each target begins with.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// The target, which the fuzzing engine, or replay.cpp, calls with each input. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the process, so that the input is reported, unless a property holds.
inline void require(bool holds)
{
    if (!holds)
        std::abort();
}
