#include "btkprocess.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <list>
#include <memory>
#include <mutex>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <qel/base/btkcmdline.h>
#include <qel/base/btkenvironment.h>
#include <qel/base/btkretry.h>
#include <qel/base/btktrace.h>

#include "btkpoll_p.h"
#include "btkspawn_p.h"

struct btkProcess
{
    // A pidfd, which never refers to a later process.
    btkFd descriptor;
    pid_t id = -1;
    bool isChild = false;
    bool leadsGroup = false;
    // Its exit code has been taken: the id may be reused.
    bool isReaped = false;
    // Of a child: a list node for its descriptor, so that freeing the process allocates no memory.
    std::list<btkFd> abandoned;
};

namespace {

// The C library declares these on later systems only.
int openProcess(pid_t id)
{
    return static_cast<int>(syscall(SYS_pidfd_open, id, 0));
}

int signalProcess(btkHandle process, int number)
{
    return static_cast<int>(syscall(SYS_pidfd_send_signal, process, number, nullptr, 0));
}

constexpr idtype_t byDescriptor = static_cast<idtype_t>(3); // P_PIDFD

// Takes the exit code of a child: 1; 0 when it is still running, -1 on failure.
int reap(btkHandle process, bool wait, long& exitCode)
{
    siginfo_t ended = {};
    const int options = WEXITED | (wait ? 0 : WNOHANG);
    if (btkRetry([&] { return waitid(byDescriptor, static_cast<id_t>(process), &ended, options); }) < 0)
        return -1;
    if (ended.si_pid == 0)
        return 0;
    exitCode = ended.si_code == CLD_EXITED ? ended.si_status : 128 + ended.si_status;
    return 1;
}

// Children that were freed while they ran, until they exit.
class Abandoned
{
public:
    void Add(btkProcess& process)
    {
        const std::lock_guard guard(mutex);
        process.abandoned.front() = std::move(process.descriptor);
        running.splice(running.end(), process.abandoned);
    }
    // Reaps those that have exited. Keeps errno.
    void Sweep()
    {
        const std::lock_guard guard(mutex);
        const int kept = errno;
        std::erase_if(running, [](const btkFd& process) {
            long exitCode;
            return reap(process.Get(), false, exitCode) != 0;
        });
        errno = kept;
    }

    static Abandoned& Get()
    {
        static auto* const all =
            // Never freed: destructors at exit may free processes, too.
            new Abandoned;
        return *all;
    }

private:
    std::mutex mutex;
    std::list<btkFd> running;
};

class FileActions
{
public:
    FileActions() { posix_spawn_file_actions_init(&actions); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    // Each returns whether it succeeded; the reason is in errno.
    bool ChangeDirectory(const char* path)
    {
        return Check(posix_spawn_file_actions_addchdir_np(&actions, path));
    }
    bool Place(btkHandle handle, int standard)
    {
        return Check(posix_spawn_file_actions_adddup2(&actions, handle, standard));
    }
    bool CloseOthers()
    {
        return Check(posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1));
    }
    const posix_spawn_file_actions_t* Get() const { return &actions; }

private:
    static bool Check(int error)
    {
        if (error != 0)
            errno = error;
        return error == 0;
    }

    posix_spawn_file_actions_t actions;
};

// Assigns the three handles in the child. Those that have a standard number already are duplicated first,
// lest one overwrites another.
bool placeStreams(FileActions& actions, const btkHandle (&handles)[3], btkFd (&duplicates)[3])
{
    for (int standard = 0; standard < 3; ++standard) {
        btkHandle handle = handles[standard];
        if (handle < 0)
            continue;
        if (handle <= STDERR_FILENO) {
            duplicates[standard].Reset(fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
            handle = duplicates[standard].Get();
        }
        if (handle < 0 || !actions.Place(handle, standard))
            return false;
    }
    return actions.CloseOthers();
}

std::vector<char*> argumentsOf(const std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return arguments;
}

pid_t spawn(const std::vector<std::string>& words, const char* workDir, const btkHandle (&handles)[3],
            bool leadsGroup)
{
    std::vector<char*> arguments = argumentsOf(words);
    btkSpawnAttributes attributes;
    if (leadsGroup)
        attributes.LeadGroup();
    FileActions actions;
    btkFd duplicates[3];
    if (!placeStreams(actions, handles, duplicates))
        return -1;
    if (workDir != nullptr && *workDir != '\0' && !actions.ChangeDirectory(workDir))
        return -1;

    pid_t child;
    const int error = posix_spawnp(&child, arguments[0], actions.Get(), attributes.Get(), arguments.data(),
                                   btkEnvironment::ForProgram().data());
    if (error == 0)
        return child;
    errno = error;
    return -1;
}

// For a process that leads a group, to the whole group: the group's id cannot be reused before its leader is
// reaped.
void sendSignal(const btkProcess* process, int number)
{
    if (process->isReaped)
        return;
    if (btkTraces(btkTraceArea::processes, btkLevel::info))
        btkTrace(btkTraceArea::processes, btkLevel::info, "signal %d to process %d", number, process->id);
    if (!process->leadsGroup || kill(-process->id, number) != 0)
        signalProcess(process->descriptor.Get(), number);
}

} // namespace

bool Process_Launch(btkProcess** process, unsigned long* id, const char* command, const char* workDir,
                    btkHandle in, btkHandle out, btkHandle err, unsigned flags)
{
    Abandoned::Get().Sweep();
    std::vector<std::string> words;
    if (!btkSplitCommandLine(command, words)) {
        errno = EINVAL;
        return false;
    }
    if (words.empty()) {
        errno = ENOENT;
        return false;
    }

    auto made = std::make_unique<btkProcess>();
    made->isChild = true;
    made->abandoned.emplace_back();
    made->leadsGroup = (flags & btkLaunchGroup) != 0;
    made->id = spawn(words, workDir, {in, out, err}, made->leadsGroup);
    // Only the program: its arguments may be secret.
    if (btkTraces(btkTraceArea::processes, btkLevel::info)) {
        if (made->id < 0)
            btkTrace(btkTraceArea::processes, btkLevel::info, "cannot start %s: ", words[0].c_str());
        else
            btkTrace(btkTraceArea::processes, btkLevel::info, "started %s as process %d", words[0].c_str(),
                     made->id);
    }
    if (made->id < 0)
        return false;
    made->descriptor.Reset(openProcess(made->id));
    if (!made->descriptor && errno != ESRCH) {
        // No descriptor is left to watch it: it must not run unobserved.
        const int kept = errno;
        kill(made->leadsGroup ? -made->id : made->id, SIGKILL);
        btkRetry([&] { return waitpid(made->id, nullptr, 0); });
        errno = kept;
        return false;
    }
    // ESRCH: if the program ignores SIGCHLD, children are reaped automatically.
    made->isReaped = !made->descriptor;
    *id = static_cast<unsigned long>(made->id);
    *process = made.release();
    return true;
}

bool Process_Open(btkProcess** process, unsigned long id)
{
    Abandoned::Get().Sweep();
    auto made = std::make_unique<btkProcess>();
    if (id == 0 || id > INT_MAX) {
        errno = ESRCH;
        return false;
    }
    made->id = static_cast<pid_t>(id);
    made->descriptor.Reset(openProcess(made->id));
    if (!made->descriptor) {
        // The id of a thread; kernels differ.
        if (errno == EINVAL || errno == ENOENT)
            errno = ESRCH;
        return false;
    }
    *process = made.release();
    return true;
}

bool Process_CanWait(const btkProcess* process)
{
    return process->isChild;
}

bool Process_Wait(btkProcess* process, long* exitCode, bool wait, bool release)
{
    Abandoned::Get().Sweep();
    if (!process->isChild || process->isReaped) {
        errno = ECHILD;
        return false;
    }
    const int answer = reap(process->descriptor.Get(), wait, *exitCode);
    if (answer == 0)
        errno = EAGAIN;
    process->isReaped = answer != 0;
    if (answer > 0 && btkTraces(btkTraceArea::processes, btkLevel::info))
        btkTrace(btkTraceArea::processes, btkLevel::info, "process %d exited with %ld", process->id,
                 *exitCode);
    if (answer > 0 && release)
        Process_Free(process);
    return answer > 0;
}

bool Process_CheckRunning(const btkProcess* process)
{
    return process->descriptor && !process->isReaped && !btkIsReadable(process->descriptor.Get());
}

void Process_Interrupt(const btkProcess* process)
{
    sendSignal(process, SIGINT);
}

void Process_Kill(const btkProcess* process)
{
    sendSignal(process, SIGKILL);
}

void Process_Free(btkProcess* process)
{
    long exitCode;
    if (process->isChild && !process->isReaped && reap(process->descriptor.Get(), false, exitCode) == 0)
        Abandoned::Get().Add(*process);
    delete process;
    Abandoned::Get().Sweep();
}

btkHandle Process_GetExitHandle(const btkProcess* process)
{
    return process->descriptor.Get();
}

void Process_Become(const std::vector<std::string>& words)
{
    execve(words.at(0).c_str(), argumentsOf(words).data(), btkEnvironment::ForProgram().data());
}
