#include "btksystem.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <qel/base/btkenvironment.h>
#include <qel/base/btkpipe.h>
#include <qel/base/btkretry.h>

#include "btkspawn_p.h"

const char* const ZUN_MACHINE_TYPE = BASE_MACHINE_TYPE;
const char* const ZUN_OS_TYPE = BASE_OS_TYPE;

btkSpawnAttributes::btkSpawnAttributes()
{
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

void btkSpawnAttributes::LeadGroup()
{
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
}

namespace {

/// Waits until a child exits: its exit status, 128 plus the signal's number, or -1.
int statusOf(pid_t child)
{
    if (child < 0)
        return -1;
    int status;
    if (btkRetry([&] { return waitpid(child, &status, 0); }) < 0)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// -1 on failure.
pid_t startShell(const char* command, char* const* environment)
{
    char shell[] = "sh", option[] = "-c", end[] = "--";
    char* const arguments[] = {shell, option, end, const_cast<char*>(command), nullptr};
    const btkSpawnAttributes attributes;
    pid_t child;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, attributes.Get(), arguments, environment);
    return error == 0 ? child : -1;
}

bool childrenLeaveNoStatus()
{
    struct sigaction action;
    return sigaction(SIGCHLD, nullptr, &action) == 0 &&
           (action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0);
}

/// Runs the shell from a process that does not ignore SIGCHLD and reports its status through a pipe. That
/// process makes only calls that are safe after a fork in a multi-threaded process.
int runShellApart(const char* command, char* const* environment)
{
    btkOutputPipe output;
    btkInputPipe input;
    if (!btkAnonymousPipe::Create(output, input))
        return -1;
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t helper = fork();
    if (helper == 0) {
        struct sigaction byDefault = {};
        byDefault.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &byDefault, nullptr);
        const pid_t child = startShell(command, environment);
        const auto kept = static_cast<unsigned>(output.Get());
        // A descriptor that the caller has closed must not stay open here.
        if (kept > 0)
            close_range(0, kept - 1, 0);
        close_range(kept + 1, UINT_MAX, 0);
        const int status = statusOf(child);
        _exit(write(output.Get(), &status, sizeof status) == sizeof status ? 0 : 1);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (helper < 0)
        return -1;
    output.Reset();
    int status;
    const bool told = btkRead(input.Get(), &status, sizeof status) == sizeof status;
    // There is a status if SIGCHLD is no longer ignored.
    statusOf(helper);
    return told ? status : -1;
}

} // namespace

int System(const char* command)
{
    if (command == nullptr)
        return -1;
    const std::vector<char*> environment = btkEnvironment::ForProgram();
    return childrenLeaveNoStatus() ? runShellApart(command, environment.data())
                                   : statusOf(startShell(command, environment.data()));
}

bool Putenv(const char* name, const char* value)
{
    if (!btkEnvironment::Set(name, value))
        return false;
    if (std::strcmp(name, "TZ") == 0)
        // The reentrant calls do not read TZ.
        tzset();
    return true;
}

unsigned long Error_GetLast()
{
    return static_cast<unsigned long>(errno);
}

std::string Error_GetText(unsigned long number)
{
    char buffer[256] = "";
    return strerror_r(static_cast<int>(number), buffer, sizeof buffer);
}

btkFd btkAwaitTermination()
{
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGINT);
    btkFd signals(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signals)
        pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    return signals;
}

bool btkGetTerminalSize(btkHandle terminal, int& columns, int& rows)
{
    winsize size = {};
    if (ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return false;
    columns = size.ws_col;
    rows = size.ws_row;
    return true;
}

namespace {

std::atomic<int> processNumber = 0;

// A child runs this before anything else.
[[maybe_unused]] const int isWatched = [] {
    processNumber = getpid();
    return pthread_atfork(nullptr, nullptr, [] { processNumber = getpid(); });
}();

} // namespace

int btkProcessNumber()
{
    const int known = processNumber.load(std::memory_order_relaxed);
    // Too early, during loading.
    return known != 0 ? known : getpid();
}
