#pragma once

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

#include <qel/xobject.h>

#include "support/descriptors.h"
#include "support/failingmalloc.h"
#include "support/thrown.h"

// Runs operations with one of their allocations failing, or all from one on. However an operation ends, it
// must leak neither memory nor descriptors, and the next attempt must succeed. Include it in the only source
// of a test program.

namespace torture {

enum Outcome { worked, outOfMemory, reported };

/// Turns a failure that a function reports by its result into an exception.
inline void need(bool isDone)
{
    if (!isDone)
        throw std::bad_alloc();
}

/// How `work` ends: it may throw only an out-of-memory failure or a framework exception.
template<class Work>
Outcome attempt(Work work)
{
    try {
        work();
        return worked;
    } catch (const std::bad_alloc&) {
        return outOfMemory;
    } catch (xthrowable* thrown) {
        failing::Failing::stop();
        const qel::caught freed(thrown);
        return reported;
    }
}

/// The number of allocations of `work`.
template<class Work>
long allocationsOf(Work work)
{
    const failing::Failing never(std::numeric_limits<long>::max(), false);
    work();
    return failing::seen;
}

/// The numbers of allocations after which one fails: with QELSTD_TORTURE all that make a difference,
/// otherwise 50 of them, evenly spread.
inline std::vector<long> turns(long allocations)
{
    const long most = std::getenv("QELSTD_TORTURE") != nullptr ? allocations : 50;
    std::vector<long> chosen;
    for (long i = 0; i < std::min(most, allocations); ++i)
        chosen.push_back(i * allocations / std::min(most, allocations));
    return chosen;
}

/// Runs `work` with each of its chosen allocations failing.
inline void run(void (*work)())
{
    for (int i = 0; i < 2; ++i) // creates the objects that are created once and kept
        ASSERT_EQ(attempt(work), worked);
    if (testing::Test::HasFailure())
        return;
    const long allocations = allocationsOf(work);
    if (allocations == 0 && !failing::ofMalloc)
        GTEST_SKIP() << "all its memory comes from malloc";
    ASSERT_GT(allocations, 0);
    for (const bool ever : {false, true})
        for (const long after : turns(allocations)) {
            SCOPED_TRACE("with allocation " + std::to_string(after) + (ever ? " and all behind" : "") +
                         " failing");
            const long descriptors = openDescriptors();
            const long before = failing::live;
            {
                const failing::Failing failure(after, ever);
                attempt(work);
            }
            ASSERT_EQ(failing::live, before) << "blocks of memory";
            ASSERT_EQ(openDescriptors(), descriptors) << "descriptors";
            ASSERT_EQ(attempt(work), worked) << "the next time";
        }
}

} // namespace torture

/// A test that runs the operation whose body follows; see torture::run.
#define TORTURE(name_)                  \
    void tortured##name_();             \
    TEST(Torture, name_)                \
    {                                   \
        torture::run(&tortured##name_); \
    }                                   \
    void tortured##name_()
