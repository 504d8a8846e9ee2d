#pragma once

#include <string>

#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// The Windows number of an errno value; ERROR_GEN_FAILURE for one without counterpart.
DWORD platErrorOf(int hostError);

/// Sets the last error to the number of `errno`. Returns FALSE, for `return platFail();`.
BOOL platFail();

/// Returns `done`. When it is false, sets the last error to the number of `errno`: for calls of the layers
/// below, as in `if (!platDone(folder.Create(name)))`.
bool platDone(bool done);

/// The same as platFail, after a call on `hostPath` failed. Windows reports "path not found" when a directory on the
/// way is missing and "file not found" for the last name only; Linux has one errno value for both.
BOOL platFailOn(const std::string& hostPath);

/// Sets the last error to `error`. Returns FALSE.
BOOL platFailWith(DWORD error);
