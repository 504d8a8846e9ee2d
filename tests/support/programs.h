#pragma once

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "support/descriptors.h"
#include "support/interrupt.h"

/// Whether the process has no child, running or exited.
inline bool hasNoChildren()
{
    siginfo_t found;
    return waitid(P_ALL, 0, &found, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
}

/// For tests that start programs: none of them leaves a child or a descriptor behind, and all pass also while
/// signals interrupt every call.
class Processes : public testing::Test
{
protected:
    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_TRUE(hasNoChildren());
    }

private:
    const Interrupter interrupter;
    long descriptors = openDescriptors();
};
