#pragma once

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <sys/time.h>

#include "support/longrun.h"

/// Interrupts the process a thousand times a second during its lifetime, with a handler that does not restart
/// calls. Restores the previous timer and handler afterwards.
class Interrupter
{
public:
    Interrupter()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { interrupts.fetch_add(1); };
        sigaction(SIGALRM, &action, &before);
        const itimerval timer = {{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &timer, &timerBefore);
    }
    ~Interrupter()
    {
        setitimer(ITIMER_REAL, &timerBefore, nullptr);
        sigaction(SIGALRM, &before, nullptr);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    /// The number of interruptions.
    static inline std::atomic<int> interrupts = 0;

private:
    struct sigaction before = {};
    itimerval timerBefore = {};
};

/// Interrupts all tests of a program in long runs.
class InterruptedInLongRuns : public testing::Environment
{
public:
    static const InterruptedInLongRuns& Add()
    {
        auto* const added = new InterruptedInLongRuns;
        testing::AddGlobalTestEnvironment(added);
        return *added;
    }
    void SetUp() override
    {
        if (ofALongRun(false, true))
            interrupter.emplace();
    }
    void TearDown() override { interrupter.reset(); }

private:
    std::optional<Interrupter> interrupter;
};
