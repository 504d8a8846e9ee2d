#pragma once

#include <string>

#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// The Windows number of a host error number; ERROR_GEN_FAILURE for one that has no counterpart.
DWORD platErrorOf(int hostError);

/// Sets the last error to the number of the host's `errno`. Answers FALSE, for `return platFail();`.
BOOL platFail();

/// The same after a call on `hostPath` failed. Windows answers "path not found" when a directory on the way
/// is missing and "file not found" for the last name only; the host has one number for both.
BOOL platFailOn(const std::string& hostPath);

/// Sets the last error to `error`. Answers FALSE.
BOOL platFailWith(DWORD error);
