#pragma once

#include <qel/qelexport.h>

/// The failures of the file library, by number. The table in fsexception.cpp has their texts and classes.
enum fsErrorCode {
    fsSuccess = 0,
    fsIOError = 1,
    fsQuotaExhausted = 2,
    fsDiskFull = 3,
    fsInvalidName = 4,
    fsInvalidPath = 5,
    fsDoesNotExist = 6,
    fsFileExists = 7,
    fsLinksNotSupported = 8,
    fsNoPermission = 9,
    fsSignal = 10,
    fsOther = 11
};

/// The text of a failure; "No description" for an unknown number.
const char* fsDescription(int code);

/// The number for a platform error, as GetLastError gives it.
fsErrorCode fsCodeOf(unsigned platformError);

/// Whether a platform error means that the node does not exist or cannot exist.
bool fsIsAbsence(unsigned platformError);

/// Throws the exception for `code`, which is 1 to 11, with `platformError` as the thread's last error; 0:
/// with the platform error of the code. Null `path`: the failure concerns no path.
[[noreturn]] QEL_API void fsRaise(fsErrorCode code, const char* function, const char* path,
                                  unsigned platformError = 0);

/// Throws the exception for the thread's last platform error.
[[noreturn]] QEL_API void fsRaiseLastError(const char* function, const char* path);
