#pragma once

#include <string>
#include <vector>

#include <qel/base/btkfd.h>

/// A process that was started here, or opened by its id. Each operation is safe to call from any thread, but
/// each process is used by one thread at a time. The reason of a failure is left for Error_GetLast.
struct btkProcess;

/// Bits of the last argument of Process_Launch.
enum btkLaunchFlags : unsigned {
    /// The program leads its own process group, which interrupts and kills reach as a whole.
    btkLaunchGroup = 1,
    /// Without effect on Linux.
    btkLaunchDetached = 2
};

/// Starts the program that `command` names (btkcmdline.h defines how it is split), found by PATH, in the
/// directory `workDir`, in native form; null or empty: the caller's. `in`, `out` and `err` become its
/// standard streams and stay the caller's; with -1 it inherits the caller's own. It gets no other descriptor,
/// no blocked signal, and default handling of each signal. False, and nothing started, when the line names no
/// program or the program cannot be run; the reason is the system's. The time does not depend on the size of
/// the calling process.
BASE_API bool Process_Launch(btkProcess** process, unsigned long* id, const char* command,
                             const char* workDir, btkHandle in, btkHandle out, btkHandle err, unsigned flags);

/// Opens the process `id`, running or exited, whoever started it. It can be queried, interrupted and killed,
/// within the caller's permissions, but not waited for: its exit code belongs to its parent.
BASE_API bool Process_Open(btkProcess** process, unsigned long id);

/// Whether the process was started here and Process_Wait has not freed it.
BASE_API bool Process_CanWait(const btkProcess* process);

/// Takes the exit code of a process that has exited: its own, or 128 plus the number of the signal that
/// killed it. `wait`: waits until it exits. `release`: frees `process` when the code has been taken. False
/// while it is running, and when another caller took the code.
BASE_API bool Process_Wait(btkProcess* process, long* exitCode, bool wait, bool release);

/// Whether it is running. Never mistakes another process that got the same id later.
BASE_API bool Process_CheckRunning(const btkProcess* process);

/// Sends the signal of a terminal's interrupt key, or kills the process. For a process that leads its group
/// by btkLaunchGroup, the whole group. Nothing happens once its exit code has been taken.
BASE_API void Process_Interrupt(const btkProcess* process);
BASE_API void Process_Kill(const btkProcess* process);

/// Frees `process`. A running one continues; if it was started here, a later launch, wait or free reaps it
/// after its exit, so that it does not stay behind as a zombie.
BASE_API void Process_Free(btkProcess* process);

/// Returns a handle that is readable once the process has exited, for a btkPROCESSEvent; it stays the
/// process's. -1: it has exited.
BASE_API btkHandle Process_GetExitHandle(const btkProcess* process);

/// Runs the program at the path `words[0]`, with the other words as its arguments, in the place of this one: with
/// its id, its standard streams and its environment. Returns only when that fails; the reason is in errno. No other
/// thread may run.
BASE_API void Process_Become(const std::vector<std::string>& words);
