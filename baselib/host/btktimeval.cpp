#include "btktimeval.h"

#include <ctime>

namespace {

btkTimeval readClock(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return {now.tv_sec, now.tv_nsec / 1000};
}

} // namespace

btkTimeval btkTimeval::Now()
{
    return readClock(CLOCK_MONOTONIC);
}

btkTimeval btkTimeval::GetTimeOfDay()
{
    return readClock(CLOCK_REALTIME);
}
