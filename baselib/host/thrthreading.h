#pragma once

#include <sys/single_threaded.h>

#include <qel/base/baseexport.h>

/// Set by a program that wants locks taken although the C library knows of one thread only. Clear at start.
extern BASE_API bool s_bThreadingEnabled;

/// Whether the process may have more than one thread: true unless the C library says that there is just one,
/// so a thread counts by whatever means it was made. Cheap: one load or two.
inline bool thrIsThreaded()
{
    return !__libc_single_threaded || s_bThreadingEnabled;
}
