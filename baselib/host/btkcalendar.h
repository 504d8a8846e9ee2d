#pragma once

#include <ctime>

#include <qel/base/baseexport.h>

// Calendar times. Safe to call from any thread.

/// Breaks `time` down to local time, and stores in `offset`, unless it is null, the seconds by which local
/// time is ahead of UTC. False when the year does not fit.
BASE_API bool btkLocalTime(std::time_t time, std::tm& fields, int* offset = nullptr);

/// Stores the time of a date and a clock time in UTC, whose fields may lie outside their usual ranges and are
/// normalized. False when there is no such time.
BASE_API bool btkTimeOfUtc(std::tm fields, std::time_t& time);
