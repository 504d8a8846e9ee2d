#pragma once

#include <cerrno>
#include <csignal>
#include <unistd.h>

#include <sys/wait.h>

/// A process of its own that runs `work`, which answers the exit status; nothing of the parent's clean-up
/// runs in it. It is killed with the object, unless it has been waited for.
class ChildProcess
{
public:
    template<typename Work>
    explicit ChildProcess(Work work) : id(fork())
    {
        if (id == 0)
            _exit(work());
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess()
    {
        if (id > 0) {
            signal(SIGKILL);
            wait();
        }
    }

    pid_t getId() const { return id; }
    void signal(int number) const { kill(id, number); }
    /// Waits until it has stopped. False when it has ended instead.
    bool waitUntilStopped() const
    {
        int status = 0;
        return waitpid(id, &status, WUNTRACED) == id && WIFSTOPPED(status);
    }
    /// Waits for its end. Its exit status, or minus the signal that ended it.
    int wait()
    {
        int status = 0;
        const pid_t child = id;
        id = -1;
        if (child < 0)
            return -1000;
        while (waitpid(child, &status, 0) != child)
            if (errno != EINTR)
                return -1000;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t id;
};

/// Runs `work` in a process of its own and waits for it; see ChildProcess::wait.
template<typename Work>
int runInChild(Work work)
{
    return ChildProcess(work).wait();
}
