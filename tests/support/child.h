#pragma once

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

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

/// The status of a child process that is not allowed what its work needs.
constexpr int notAllowed = 77;

/// Expects that `work` returns 0 in a child process, and fails no expectation there. Skips the test, for that `lack`,
/// when it returns notAllowed.
template<typename Work>
void expectSuccessInChild(const char* lack, Work work)
{
    const int result = runInChild([&] {
        const int status = work();
        return status == 0 && testing::Test::HasFailure() ? 1 : status;
    });
    if (result == notAllowed)
        GTEST_SKIP() << lack;
    EXPECT_EQ(result, 0);
}

/// Expects that `work(i)` returns 0 in each of `count` child processes that run at once.
template<typename Work>
void expectSuccessInChildren(int count, Work work)
{
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < count; ++i)
        children.push_back(std::make_unique<ChildProcess>([&] { return work(i); }));
    for (const auto& child : children)
        EXPECT_EQ(child->wait(), 0);
}

/// Gives this process its own mounts. False if the system does not allow that.
inline bool enterOwnMounts()
{
    return (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}
