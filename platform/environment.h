#pragma once

/// Who runs the process and where, and its sleep.

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// The name of this machine. `*size` is the buffer's size and receives the length; when the buffer is too
/// small, ERROR_BUFFER_OVERFLOW and the size that is needed.
BOOL GetComputerNameA(char* buffer, DWORD* size);

/// The name of the user whose rights this process has. As GetComputerNameA, but `*size` receives the length
/// with its terminator, and the error is ERROR_INSUFFICIENT_BUFFER. ERROR_NONE_MAPPED for a user without
/// name.
BOOL GetUserNameA(char* buffer, DWORD* size);

/// Suspends the calling thread; signals do not shorten it.
void Sleep(DWORD milliseconds);
