#pragma once

#include <qel/base/baseexport.h>

/// The fatal report for a broken invariant: writes `message`, `file` and `line` to standard error and ends
/// the process with `abort()`. Never called for bad input. Safe to call from any thread.
[[noreturn]] BASE_API void _Abort(const char* message, const char* file, int line);

/// The fatal report with the place of the call.
#define QEL_ABORT(message) _Abort((message), __FILE__, __LINE__)
