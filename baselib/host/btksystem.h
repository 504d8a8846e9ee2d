#pragma once

#include <string>

#include <qel/base/btkfd.h>

/// The machine and the operating system that this library was built for, such as "x86_64" and "linux".
extern BASE_API const char* const ZUN_MACHINE_TYPE;
extern BASE_API const char* const ZUN_OS_TYPE;

/// Runs `command` in the command shell and waits for its end; the caller's standard streams are the
/// command's. Answers its exit status, 128 and the signal's number when a signal ended it, or -1 when it
/// could not be run. The command starts with the default signal handling, whatever the caller's; the caller's
/// is not touched. Where the caller ignores SIGCHLD, which leaves it without its children's statuses, another
/// process waits for the command. Safe to call from any thread.
BASE_API int System(const char* command);

/// Sets `name` in the environment of the process to a copy of `value`; local time follows TZ. False, with
/// nothing changed, for a name that is empty or holds "=", and when memory runs out. Safe to call from any
/// thread; see btkEnvironment.
BASE_API bool Putenv(const char* name, const char* value);

/// The number of the calling thread's last failure in this layer, as the host counts them, and the host's
/// text for a number.
BASE_API unsigned long Error_GetLast();
BASE_API std::string Error_GetText(unsigned long number);

/// For programs that end in order when they are told to: from now on SIGTERM and SIGINT do nothing to the
/// calling thread and to those that it starts; the descriptor becomes readable when one of them has come. To
/// be called before there are other threads. Owns nothing, with the reason in errno, when the host has no
/// descriptor left.
BASE_API btkFd btkAwaitTermination();

/// The number of this process. A forked child has another one; there is no call of the host in it.
BASE_API int btkProcessNumber();
