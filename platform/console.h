#pragma once

/// Console control events: the interrupt and quit keys. Differs from Windows on purpose: there is one handler
/// at a time, and it runs inside a signal handler, so it may call only async-signal-safe functions.

#include <qel/platform/platformtypes.h>

/// The interrupt key (SIGINT) and the quit key (SIGQUIT).
inline constexpr DWORD CTRL_C_EVENT = 0;
inline constexpr DWORD CTRL_BREAK_EVENT = 1;

using PHANDLER_ROUTINE = BOOL (*)(DWORD type);

/// `add`: `handler` is called for each event from now on. When it returns FALSE, the previous action of the
/// signal runs. Otherwise (`add` is FALSE): removes the handler, restores the previous actions of the
/// signals, and waits until no thread is in the handler. Returns FALSE when another handler is installed
/// already, or when `handler` is not the installed one. errno is preserved across each call of the handler.
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);
