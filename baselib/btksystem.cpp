#include <qel/base/btksystem.h>

#include "btkspawn_p.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

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

int System(const char* command)
{
    if (command == nullptr)
        return -1;
    char shell[] = "sh", option[] = "-c", end[] = "--";
    char* const arguments[] = {shell, option, end, const_cast<char*>(command), nullptr};
    const btkSpawnAttributes attributes;
    pid_t child;
    if (posix_spawn(&child, "/bin/sh", nullptr, attributes.Get(), arguments, environ) != 0)
        return -1;
    int status;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Putenv(const char* name, const char* value)
{
    if (name == nullptr || value == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr ||
        setenv(name, value, 1) != 0)
        return false;
    if (std::strcmp(name, "TZ") == 0)
        tzset(); // the reentrant calls do not look
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
