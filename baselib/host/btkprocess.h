#pragma once

#include <qel/base/btkfd.h>

/// A process that was started here, or opened by its id. Each operation is safe to call from any thread; one
/// process is used by one thread at a time. What fails leaves the reason for Error_GetLast.
struct btkProcess;

enum btkLaunchFlags : unsigned {
    /// The program leads a process group of its own, which interrupts and kills reach as a whole.
    btkLaunchGroup = 1,
    /// Without effect on this host.
    btkLaunchDetached = 2
};

/// Starts the program that `command` names (btkcmdline.h says how it is taken apart), found by PATH, in the
/// directory `workDir` of the host; null or empty: the caller's. `in`, `out` and `err` become its standard
/// streams and stay the caller's; with -1 it inherits the caller's own. It gets no other descriptor, no
/// blocked signal, and each signal handled as by default. False, and nothing started, when the line names no
/// program or the program can not be run; the reason is the host's. The time does not depend on the caller's
/// size.
BASE_API bool Process_Launch(btkProcess** process, unsigned long* id, const char* command,
                             const char* workDir, btkHandle in, btkHandle out, btkHandle err, unsigned flags);

/// Opens the running or ended process `id`, whoever started it. It can be asked, interrupted and killed,
/// where the caller's rights reach, but not waited for: its exit code belongs to who started it.
BASE_API bool Process_Open(btkProcess** process, unsigned long id);

/// Whether the process was started here and Process_Wait has not freed it.
BASE_API bool Process_CanWait(const btkProcess* process);

/// Takes the exit code of a process that has ended: what it answered, or 128 and the signal that ended it.
/// `wait`: waits until it ends. `release`: frees `process` when the code has been taken. False when it runs
/// still, and when somebody else took the code.
BASE_API bool Process_Wait(btkProcess* process, long* exitCode, bool wait, bool release);

/// Whether it runs. Never mistakes another process that got the same id later.
BASE_API bool Process_CheckRunning(const btkProcess* process);

/// Sends what the interrupt key of a terminal sends, or ends the process at once. For a process that leads
/// its group by btkLaunchGroup, to the whole group. Nothing happens when its exit code has been taken.
BASE_API void Process_Interrupt(const btkProcess* process);
BASE_API void Process_Kill(const btkProcess* process);

/// Frees `process`. One that runs goes on; when it was started here, its end is noticed by a later launch,
/// wait or free, so that it does not stay behind as a zombie.
BASE_API void Process_Free(btkProcess* process);

/// What is readable once the process has ended, for a btkPROCESSEvent; it stays the process's. -1: it has
/// ended.
BASE_API btkHandle Process_GetExitHandle(const btkProcess* process);
