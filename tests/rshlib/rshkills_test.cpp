// A client, a server and a command are separate processes. One is killed at any moment, or the network
// between them fails: the others exit soon and leave nothing behind.
#include <fcntl.h>
#include <map>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

#include "support/environment.h"
#include "support/longrun.h"
#include "support/owned.h"
#include "support/programs.h"
#include "support/streampair.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

using std::chrono::microseconds;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const btkTimeval patience(10.0);
#else
const btkTimeval patience(2.0);
#endif

enum Victim { Client, Server, Command, Network };
constexpr const char* victims[] = {"client", "server", "command", "network"};

// The exit status of a process that has lost its peers.
enum Remains { Nothing, Descriptors, Children, WrongExitCode };

Remains Serve(StreamPair& pair)
{
    pair.near.reset();
    const long descriptors = openDescriptors();
    rshServer::Execute(pair.far.get(), nullptr, nullptr);
    return openDescriptors() != descriptors ? Descriptors : hasNoChildren() ? Nothing : Children;
}

void SendAndReceiveWithoutEnd(rshProcess& process)
{
    std::thread writer([stream = process.getStdin()] {
        allowStreamFailure([&] {
            std::minstd_rand random;
            const std::string block(100000, 'x');
            for (;;)
                stream->WriteBytes(block.data(), static_cast<unsigned>(random() % block.size()));
        });
    });
    allowStreamFailure([&] {
        for (;;)
            process.getStdout()->ReadByte();
    });
    writer.join();
}

Remains Ask(StreamPair& pair, const std::string& command, int exitCode)
{
    pair.far.reset();
    const long descriptors = openDescriptors();
    int code = xnullint;
    allowStreamFailure([&] { // before the command has been started
        const Owned<rshProcess> process(
            rshProcess::Create(pair.near.get(), command.c_str(), nullptr, nullptr, nullptr, nullptr, 1, 0));
        SendAndReceiveWithoutEnd(*process);
        code = process->WaitExitCode();
    });
    return openDescriptors() != descriptors ? Descriptors : code == exitCode ? Nothing : WrongExitCode;
}

class RelayUnderKills : public Processes
{
protected:
    RelayUnderKills()
    {
        // Orphans become this process's children, so that none is missed.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        sigemptyset(&ends);
        sigaddset(&ends, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &ends, nullptr);
        mkfifo(pathOfIds.c_str(), 0600);
        ids.Reset(open(pathOfIds.c_str(), O_RDWR | O_CLOEXEC));
    }
    void TearDown() override
    {
        ids.Reset();
        prctl(PR_SET_CHILD_SUBREAPER, 0);
        pthread_sigmask(SIG_UNBLOCK, &ends, nullptr);
        Processes::TearDown();
    }

    // A separate process for `work`.
    template<class Work>
    pid_t Fork(Work work)
    {
        const pid_t id = fork();
        if (id == 0)
            _exit(work());
        statuses[id] = -1;
        return id;
    }

    std::string CommandFor(Victim victim, bool reads) const
    {
        // The server must kill a group member that uses none of the streams.
        const bool hasAnother = victim == Client || victim == Network;
        return "exec 9>" + pathOfIds + "; echo $$ >&9; " + (hasAnother ? "sleep 60 <&- >&- 2>&- & " : "") +
               (reads ? "exec cat" : "exec sleep 60");
    }

    // The id of the command, once it is running.
    pid_t AwaitCommand() const
    {
        if (!btkIsReadable(ids.Get(), btkTimeval(20.0)))
            ADD_FAILURE() << "the command does not start";
        return NextId();
    }
    // 0: no command has started since.
    pid_t NextId() const
    {
        char line[32] = {};
        if (btkIsReadable(ids.Get()) && btkRead(ids.Get(), line, sizeof line - 1) > 0)
            return static_cast<pid_t>(std::strtol(line, nullptr, 10));
        return 0;
    }

    // Whether all children, adopted ones too, exit within the patience. The others are killed.
    bool AllEndInTime()
    {
        const btkTimeval end = btkTimeval::Now() + patience;
        int status = 0;
        for (bool isLate = false;;) {
            const pid_t ended = waitpid(-1, &status, WNOHANG);
            if (ended < 0)
                return !isLate;
            if (ended > 0) {
                statuses[ended] = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
                continue;
            }
            const btkTimeval left = isLate ? patience : end - btkTimeval::Now();
            isLate = left == btkTimeval();
            if (isLate)
                KillChildren();
            const timespec limit = {left.GetSeconds(), left.GetMicroseconds() * 1000};
            sigtimedwait(&ends, nullptr, &limit);
        }
    }

    std::map<pid_t, int> statuses; // of the exited processes

private:
    static void KillChildren()
    {
        const std::string self = std::to_string(getpid());
        std::ifstream children("/proc/" + self + "/task/" + self + "/children");
        for (pid_t child = 0; children >> child;) {
            ADD_FAILURE() << "runs still: "
                          << std::ifstream("/proc/" + std::to_string(child) + "/cmdline").rdbuf();
            kill(child, SIGKILL);
        }
    }

    const EnvSetting shell{"SHELL", "/bin/sh"};
    const TempDir dir;
    const std::string pathOfIds = dir.path("ids");
    btkFd ids;
    sigset_t ends;
};

// A broken connection: both ends get a reset.
void Reset(btkHandle socket)
{
    sockaddr nowhere = {};
    nowhere.sa_family = AF_UNSPEC;
    EXPECT_EQ(connect(socket, &nowhere, sizeof nowhere), 0);
}

} // namespace

TEST_F(RelayUnderKills, EndsSoonAndLeavesNoProcess)
{
    std::minstd_rand random(11);
    const int rounds = ofALongRun(100, 500);
    for (int round = 0; round < rounds; ++round) {
        const auto victim = static_cast<Victim>(round % 4);
        const bool isEarly = victim != Command && random() % 2 == 0;
        // A command that reads nothing sees no end of its input, and soon no data reaches its server.
        const bool reads = victim == Server || victim == Command || random() % 2 == 0;
        const auto delay = microseconds(random() % (isEarly ? 3000 : reads ? 10000 : 100000));
        SCOPED_TRACE(std::to_string(round) + ": " + victims[victim] + (isEarly ? ", early" : "") +
                     (reads ? "" : ", unread"));
        statuses.clear();
        while (NextId() != 0) { // of an early round
        }

        StreamPair pair;
        const pid_t server = Fork([&] { return Serve(pair); });
        const pid_t client = Fork([&] {
            return Ask(pair, CommandFor(victim, reads), victim == Command ? 128 + SIGKILL : xnullint);
        });
        pair.far.reset();
        if (victim != Network)
            pair.near.reset();
        const pid_t command = isEarly ? 0 : AwaitCommand();
        std::this_thread::sleep_for(delay);
        if (victim == Network)
            Reset(pair.nearSocket->GetHandle());
        else
            kill(victim == Client ? client : victim == Server ? server : command, SIGKILL);

        EXPECT_TRUE(AllEndInTime());
        EXPECT_EQ(statuses[client], victim == Client ? -SIGKILL : Nothing);
        EXPECT_EQ(statuses[server], victim == Server ? -SIGKILL : Nothing);
        if (HasFailure())
            break;
    }
}
