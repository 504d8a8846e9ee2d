#pragma once

#include <string>

#include <qel/base/btkfd.h>

/// The machine and the operating system that this library was built for, such as "x86_64" and "linux".
extern BASE_API const char* const ZUN_MACHINE_TYPE;
extern BASE_API const char* const ZUN_OS_TYPE;

/// Runs `command` in the command shell and waits until it exits; it uses the caller's standard streams.
/// Returns its exit status, 128 plus the signal's number when a signal killed it, or -1 when it could not be
/// run. The command starts with the default signal handling, regardless of the caller's, which is unchanged.
/// If the caller ignores SIGCHLD, and therefore gets no exit statuses of its children, an intermediate
/// process waits for the command. Safe to call from any thread.
BASE_API int System(const char* command);

/// Sets `name` in the environment of the process to a copy of `value`; local time follows TZ. False, with
/// nothing changed, for a name that is empty or contains "=", and when memory runs out. Safe to call from any
/// thread; see btkEnvironment.
BASE_API bool Putenv(const char* name, const char* value);

/// Returns the error number (errno) of the calling thread's last failure in this layer, and the system's text
/// for a number.
BASE_API unsigned long Error_GetLast();
BASE_API std::string Error_GetText(unsigned long number);

/// For programs that exit in order on a termination signal: blocks SIGTERM and SIGINT in the calling thread
/// and in the threads that it starts afterwards; the descriptor becomes readable when one of them arrives.
/// Call it before other threads exist. Owns nothing, with the reason in errno, when no descriptor is left.
BASE_API btkFd btkAwaitTermination();

/// Stores the size of the terminal behind the descriptor, in characters, both at least 1. False when it is none, or
/// its size is not known.
BASE_API bool btkGetTerminalSize(btkHandle terminal, int& columns, int& rows);

/// Returns the id of this process, without a system call. A forked child has its own.
BASE_API int btkProcessNumber();
