#pragma once

#include <cerrno>
#include <sys/wait.h>

/// Whether the process has no child left, running or ended.
inline bool hasNoChildren()
{
    siginfo_t found;
    return waitid(P_ALL, 0, &found, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
}
