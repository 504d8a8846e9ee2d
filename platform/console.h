#pragma once

/// What the console's user asks of the program. Differs from Windows on purpose: there is one handler at a
/// time, and it runs inside a signal handler, so it may do only what is safe there.

#include <qel/platform/platformtypes.h>

/// The interrupt key (SIGINT) and the quit key (SIGQUIT).
inline constexpr DWORD CTRL_C_EVENT = 0;
inline constexpr DWORD CTRL_BREAK_EVENT = 1;

using PHANDLER_ROUTINE = BOOL (*)(DWORD type);

/// `add`: `handler` is called for each event from now on. When it answers FALSE, what the signal did before
/// happens. Else: takes the handler away, brings back what the signals did before, and waits until no thread
/// is in the handler any more. FALSE when there is another handler already, or not this one. errno is kept
/// around each call of the handler.
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);
