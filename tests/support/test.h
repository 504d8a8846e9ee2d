#pragma once

// The test framework, and what most tests need of the C++ library. None of the project's headers: it is precompiled once
// for all tests.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

/// Waits until `holds()` is true, for 20 seconds at most. Returns whether it is.
template<class Holds>
bool soon(Holds holds)
{
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20); !holds();
         std::this_thread::yield())
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}
