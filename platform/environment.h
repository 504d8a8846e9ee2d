#pragma once

/// The computer's name, the user's name, and Sleep.

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// The name of this machine. `*size` is the buffer's size and receives the length; when the buffer is too
/// small, it receives the required size and the error is ERROR_BUFFER_OVERFLOW.
BOOL GetComputerNameA(char* buffer, DWORD* size);

/// The name of the user whose rights this process has. As GetComputerNameA, but `*size` receives the length
/// with its terminator, and the error is ERROR_INSUFFICIENT_BUFFER. ERROR_NONE_MAPPED for a user without a
/// name.
BOOL GetUserNameA(char* buffer, DWORD* size);

/// Suspends the calling thread; signals do not shorten it.
void Sleep(DWORD milliseconds);
