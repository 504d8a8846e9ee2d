#pragma once

#include <unistd.h>

#include <sys/wait.h>

/// Runs `work` in a process of its own and answers its exit status, or minus the signal that ended it. `work`
/// answers the exit status; nothing of the parent's clean-up runs in the child.
template<typename Work>
int runInChild(Work work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
