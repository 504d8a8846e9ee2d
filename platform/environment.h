#pragma once

/// The process's environment, who and where it is, and its sleep.

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// Sets `name` to a copy of `value`; a null `value` removes the variable. ERROR_INVALID_PARAMETER for a name
/// that is null, empty or holds "=". Not to be called while another thread reads the environment.
BOOL SetEnvironmentVariableA(const char* name, const char* value);

/// Answers the length of the value; when `size` is too small, the size that is needed, and `buffer` is
/// unchanged; 0 when it fails, with ERROR_ENVVAR_NOT_FOUND for a variable that is not set.
DWORD GetEnvironmentVariableA(const char* name, char* buffer, DWORD size);

/// The name of this machine. `*size` is the buffer's size and receives the length; when the buffer is too
/// small, ERROR_BUFFER_OVERFLOW and the size that is needed.
BOOL GetComputerNameA(char* buffer, DWORD* size);

/// The name of the user whose rights this process has. As above, but `*size` receives the length with its
/// terminator, and the error is ERROR_INSUFFICIENT_BUFFER. ERROR_NONE_MAPPED for a user without name.
BOOL GetUserNameA(char* buffer, DWORD* size);

/// Suspends the calling thread; signals do not shorten it.
void Sleep(DWORD milliseconds);
