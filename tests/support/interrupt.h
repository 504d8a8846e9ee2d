#pragma once

#include <atomic>
#include <csignal>
#include <ctime>
#include <sys/time.h>

/// Interrupts the process a thousand times a second while it lives, with a handler that does not restart
/// calls.
class Interrupter
{
public:
    Interrupter()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { interrupts.fetch_add(1); };
        sigaction(SIGALRM, &action, &before);
        const itimerval timer = {{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~Interrupter()
    {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &before, nullptr);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    /// How often it has interrupted.
    static inline std::atomic<int> interrupts = 0;

private:
    struct sigaction before = {};
};
