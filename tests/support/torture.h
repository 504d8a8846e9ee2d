#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/failingmalloc.h"
#include "support/thrown.h"
#include <qel/xobject.h>

// Pieces of a program's work run with one of their allocations failing, or all from one on. However such a
// piece ends, it must lose neither memory nor descriptors, and the next time it must work. Included by the
// one source of a test program.

namespace torture {

enum Outcome { worked, outOfMemory, reported };

/// What a function answers when it reports a failure by its result.
inline void need(bool isDone)
{
    if (!isDone)
        throw std::bad_alloc();
}

/// How `work` ends: nothing but what says that there is no memory, or a framework exception, may leave it.
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
        letGo(thrown);
        return reported;
    }
}

/// How many allocations `work` makes.
template<class Work>
long allocationsOf(Work work)
{
    const failing::Failing never(std::numeric_limits<long>::max(), false);
    work();
    return failing::seen;
}

/// After how many allocations one fails: all numbers that make a difference, or 50 of them, evenly spread,
/// unless QELSTD_TORTURE is set.
inline std::vector<long> turns(long allocations)
{
    const long most = std::getenv("QELSTD_TORTURE") != nullptr ? allocations : 50;
    std::vector<long> chosen;
    for (long i = 0; i < std::min(most, allocations); ++i)
        chosen.push_back(i * allocations / std::min(most, allocations));
    return chosen;
}

struct Piece
{
    const char* name;
    void (*work)();
};

inline std::string nameOf(const testing::TestParamInfo<Piece>& info)
{
    return info.param.name;
}

} // namespace torture

class Torture : public testing::TestWithParam<torture::Piece>
{
protected:
    void run()
    {
        using namespace torture;
        const auto work = GetParam().work;
        for (int i = 0; i < 2; ++i) // makes what is made once and kept
            ASSERT_EQ(attempt(work), worked);
        if (HasFailure())
            return;
        const long allocations = allocationsOf(work);
        if (allocations == 0 && !failing::ofMalloc)
            GTEST_SKIP() << "all its memory comes from malloc";
        ASSERT_GT(allocations, 0);
        for (const bool ever : {false, true}) {
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
    }
};

TEST_P(Torture, LosesNothing)
{
    run();
}
