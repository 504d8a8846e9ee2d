#pragma once

#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

/// A child process that runs `work`, which returns the exit status; the parent's clean-up does not run in it.
/// The destructor kills it, unless it has been waited for.
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
    /// Waits until it has stopped. False when it has exited instead.
    bool waitUntilStopped() const
    {
        int status = 0;
        return waitpid(id, &status, WUNTRACED) == id && WIFSTOPPED(status);
    }
    /// Waits until it has exited. Returns its exit status, or minus the number of the signal that killed it.
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

/// Runs `work` in a child process and waits for it; see ChildProcess::wait.
template<typename Work>
int runInChild(Work work)
{
    return ChildProcess(work).wait();
}
