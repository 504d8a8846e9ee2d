#pragma once

#include <string>

#include <qel/platform/lasterror.h>
#include <qel/platform/platformtypes.h>

/// Windows error numbers that this folder reports.
enum : DWORD {
    ERROR_SUCCESS = 0,
    ERROR_FILE_NOT_FOUND = 2,
    ERROR_PATH_NOT_FOUND = 3,
    ERROR_TOO_MANY_OPEN_FILES = 4,
    ERROR_ACCESS_DENIED = 5,
    ERROR_INVALID_HANDLE = 6,
    ERROR_NOT_ENOUGH_MEMORY = 8,
    ERROR_INVALID_DRIVE = 15,
    ERROR_NOT_SAME_DEVICE = 17,
    ERROR_NO_MORE_FILES = 18,
    ERROR_WRITE_PROTECT = 19,
    ERROR_NOT_READY = 21,
    ERROR_GEN_FAILURE = 31,
    ERROR_SHARING_VIOLATION = 32,
    ERROR_LOCK_VIOLATION = 33,
    ERROR_NOT_SUPPORTED = 50,
    ERROR_FILE_EXISTS = 80,
    ERROR_INVALID_PARAMETER = 87,
    ERROR_BROKEN_PIPE = 109,
    ERROR_BUFFER_OVERFLOW = 111,
    ERROR_DISK_FULL = 112,
    ERROR_INSUFFICIENT_BUFFER = 122,
    ERROR_INVALID_NAME = 123,
    ERROR_NEGATIVE_SEEK = 131,
    ERROR_DIR_NOT_EMPTY = 145,
    ERROR_BAD_PATHNAME = 161,
    ERROR_SIGNAL_PENDING = 162,
    ERROR_BUSY = 170,
    ERROR_ALREADY_EXISTS = 183,
    ERROR_ENVVAR_NOT_FOUND = 203,
    ERROR_FILENAME_EXCED_RANGE = 206,
    ERROR_FILE_TOO_LARGE = 223,
    ERROR_MORE_DATA = 234,
    ERROR_NO_MORE_ITEMS = 259,
    ERROR_CANNOT_COPY = 266,
    ERROR_DIRECTORY = 267,
    ERROR_OPERATION_ABORTED = 995,
    ERROR_FILE_INVALID = 1006,
    ERROR_KEY_DELETED = 1018,
    ERROR_IO_DEVICE = 1117,
    ERROR_TOO_MANY_LINKS = 1142,
    ERROR_USER_MAPPED_FILE = 1224,
    ERROR_NONE_MAPPED = 1332,
    ERROR_FILE_CORRUPT = 1392,
    ERROR_UNSUPPORTED_TYPE = 1630,
    ERROR_NOT_ENOUGH_QUOTA = 1816,
    ERROR_CANT_RESOLVE_FILENAME = 1921,
};

/// The Windows number of a host error number; ERROR_GEN_FAILURE for one that has no counterpart.
DWORD platErrorOf(int hostError);

/// Sets the last error to the number of the host's `errno`. Answers FALSE, for `return platFail();`.
BOOL platFail();

/// The same after a call on `hostPath` failed. Windows answers "path not found" when a directory on the way
/// is missing and "file not found" for the last name only; the host has one number for both.
BOOL platFailOn(const std::string& hostPath);

/// Sets the last error to `error`. Answers FALSE.
BOOL platFailWith(DWORD error);
