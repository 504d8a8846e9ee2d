#pragma once

#include <qel/sysexception.h>
#include <qel/xstring.h>

// Facts about the machine and the process, and a few actions. Nothing is thrown: failures are reported on the
// standard error stream. Safe to call from any thread.

/// The computer's name; null when that fails (sysXCantGetHostName is reported).
QEL_API xstring sysGetCurHostName();
/// The name of the user that runs the process; null when that fails (sysXCantGetUserName is reported).
QEL_API xstring sysGetCurUserName();
/// The types of the machine and of the operating system, such as "x86_64" and "linux".
QEL_API xstring sysGetPlatform();
QEL_API xstring sysGetOSType();

/// The value of an environment variable; null when it is not set.
QEL_API xstring sysGetEnv(const char* name);
/// Sets an environment variable of the process to a copy of `value`. Paths, local time and programs started
/// from now on use the new value. Code of other libraries may read the environment meanwhile, but must not
/// change it. A name that is empty or contains "=", and null, are refused (sysXCantPutEnv is reported).
QEL_API void sysPutEnv(const char* name, const char* value);

/// Runs a command in the shell and returns its exit status; 128 plus the signal's number when a signal killed
/// it, -1 when it could not be run.
QEL_API int sysOSCall(const char* command);

/// Suspends the calling thread; signals do not shorten it. 0 or less: not at all.
QEL_API void sysSleep(int seconds);
