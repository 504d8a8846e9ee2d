#pragma once

#include <qel/base/baseexport.h>

/// The C library's: not 0 while the process has a single thread. The layer for an operating system whose C
/// library has no such variable defines it as 0.
extern "C" char __libc_single_threaded;

/// Set by a program that requires locking although the C library reports a single thread. Clear at start.
extern BASE_API bool s_bThreadingEnabled;

/// Whether the process may have more than one thread: true unless the C library reports a single one, so
/// threads count however they were created. Costs one or two loads.
inline bool thrIsThreaded()
{
    return !__libc_single_threaded || s_bThreadingEnabled;
}
