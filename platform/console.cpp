#include "console.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <sched.h>

namespace {

// Accessed in a signal handler.
std::atomic<PHANDLER_ROUTINE> current = nullptr;
std::atomic<int> running = 0; // threads that are in the handler
static_assert(std::atomic<PHANDLER_ROUTINE>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

struct ConsoleSignal
{
    int number;
    DWORD type;
    struct sigaction before;
};
ConsoleSignal consoleSignals[] = {{SIGINT, CTRL_C_EVENT, {}}, {SIGQUIT, CTRL_BREAK_EVENT, {}}};

void doAsBefore(const ConsoleSignal& signal, siginfo_t* info, void* context)
{
    if ((signal.before.sa_flags & SA_SIGINFO) != 0) {
        signal.before.sa_sigaction(signal.number, info, context);
    } else if (signal.before.sa_handler == SIG_DFL) {
        // Takes effect when this handler returns.
        struct sigaction action = signal.before;
        sigaction(signal.number, &action, nullptr);
        raise(signal.number);
    } else if (signal.before.sa_handler != SIG_IGN) {
        signal.before.sa_handler(signal.number);
    }
}

void onSignal(int number, siginfo_t* info, void* context)
{
    const int kept = errno;
    running.fetch_add(1);
    const ConsoleSignal& signal = consoleSignals[number == SIGINT ? 0 : 1];
    const PHANDLER_ROUTINE handler = current.load();
    const bool isHandled = handler != nullptr && handler(signal.type) != FALSE;
    running.fetch_sub(1);
    if (!isHandled)
        doAsBefore(signal, info, context);
    errno = kept;
}

} // namespace

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add)
{
    static std::mutex mutex;
    const std::lock_guard guard(mutex);
    PHANDLER_ROUTINE expected = add != FALSE ? nullptr : handler;
    if (handler == nullptr || current.load() != expected)
        return FALSE;
    if (add != FALSE) {
        current = handler;
        struct sigaction action = {};
        action.sa_sigaction = &onSignal;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        for (ConsoleSignal& signal : consoleSignals) {
            // Set before the handler can be called.
            sigaction(signal.number, nullptr, &signal.before);
            sigaction(signal.number, &action, nullptr);
        }
    } else {
        for (const ConsoleSignal& signal : consoleSignals)
            sigaction(signal.number, &signal.before, nullptr);
        current = nullptr;
        while (running.load() > 0)
            sched_yield();
    }
    return TRUE;
}
