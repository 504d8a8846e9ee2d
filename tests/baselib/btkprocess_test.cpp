#include <fcntl.h>
#include <future>
#include <unistd.h>

#include <qel/base/btkpipe.h>
#include <qel/base/btkprocess.h>
#include <qel/base/btksystem.h>
#include <qel/base/thrthread.h>

#include "support/child.h"
#include "support/longrun.h"
#include "support/programs.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

struct Free
{
    void operator()(btkProcess* process) const { Process_Free(process); }
};

// A process that a test started.
struct Started
{
    explicit Started(const std::string& command, btkHandle in = -1, btkHandle out = -1, btkHandle err = -1,
                     unsigned flags = 0, const char* workDir = nullptr)
    {
        btkProcess* started = nullptr;
        if (Process_Launch(&started, &id, command.c_str(), workDir, in, out, err, flags))
            process.reset(started);
        else
            error = static_cast<int>(Error_GetLast());
    }
    // Its exit code once it has exited.
    long Wait()
    {
        long code = -1;
        if (process == nullptr || !Process_Wait(process.get(), &code, true, true))
            return -1;
        process.release();
        return code;
    }

    std::unique_ptr<btkProcess, Free> process;
    unsigned long id = 0;
    int error = 0;
};

struct Pipe
{
    Pipe() { EXPECT_TRUE(btkAnonymousPipe::Create(output, input)); }
    // All written bytes, once all copies of the writing end are closed.
    std::string ReadAll()
    {
        output.Reset();
        std::string all;
        char block[4096];
        for (std::ptrdiff_t size; (size = btkRead(input.Get(), block, sizeof block)) > 0;)
            all.append(block, static_cast<std::size_t>(size));
        return all;
    }
    btkOutputPipe output;
    btkInputPipe input;
};

std::string OutputOf(const std::string& command, unsigned flags = 0, const char* workDir = nullptr)
{
    Pipe pipe;
    Started started(command, -1, pipe.output.Get(), -1, flags, workDir);
    EXPECT_EQ(started.error, 0) << command;
    std::string output = pipe.ReadAll();
    EXPECT_EQ(started.Wait(), 0) << command;
    return output;
}

bool WaitForEnd(const btkProcess* process)
{
    btkEvent event(new btkPROCESSEvent(Process_GetExitHandle(process)));
    return btkEvent::Wait({&event}, btkTimeval(20.0)) == 1;
}

} // namespace

TEST_F(Processes, ReportTheirExitCodeOrTheSignalThatKilledThem)
{
    EXPECT_EQ(Started("true").Wait(), 0);
    EXPECT_EQ(Started("sh -c \"exit 255\"").Wait(), 255);
    EXPECT_EQ(Started("sh -c \"kill -9 $$\"").Wait(), 128 + SIGKILL);
    Started sleeping("sleep 60");
    EXPECT_TRUE(Process_CheckRunning(sleeping.process.get()));
    long code = -7;
    EXPECT_FALSE(Process_Wait(sleeping.process.get(), &code, false, true));
    EXPECT_EQ(code, -7);
    Process_Interrupt(sleeping.process.get());
    EXPECT_TRUE(WaitForEnd(sleeping.process.get()));
    EXPECT_FALSE(Process_CheckRunning(sleeping.process.get()));
    EXPECT_EQ(sleeping.Wait(), 128 + SIGINT);
}

TEST_F(Processes, InheritOnlyThePassedStreams)
{
    Pipe in, out, err, other;
    const btkFd kept(fcntl(other.output.Get(), F_DUPFD, 20)); // would be inherited
    Started started("sh -c \"cat; echo problem >&2; ls /proc/self/fd | tr '\\n' ' '\"", in.input.Get(),
                    out.output.Get(), err.output.Get());
    in.input.Reset();
    err.output.Reset();
    EXPECT_EQ(btkWrite(in.output.Get(), "text\n", 5), 5u);
    in.output.Reset();
    EXPECT_EQ(out.ReadAll(), "text\n0 1 2 3 "); // 3 is the listing's own
    EXPECT_EQ(err.ReadAll(), "problem\n");
    EXPECT_EQ(started.Wait(), 0);
}

TEST_F(Processes, GetStreamsWhoseDescriptorsHaveEachOthersStandardNumbers)
{
    EXPECT_EQ(runInChild([] {
                  // in is 2, out is 0, and err is 1: pipes with the numbers of each other's places.
                  Pipe in, out, err;
                  if (dup2(in.input.Get(), 2) != 2 || dup2(out.output.Get(), 0) != 0 ||
                      dup2(err.output.Get(), 1) != 1)
                      return 1;
                  Started started("sh -c \"read a; echo out $a; echo err $a >&2\"", 2, 0, 1);
                  if (btkWrite(in.output.Get(), "x\n", 2) != 2 || started.Wait() != 0)
                      return 2;
                  close(0);
                  close(1);
                  return out.ReadAll() == "out x\n" && err.ReadAll() == "err x\n" ? 0 : 3;
              }),
              0);
}

TEST_F(Processes, FailWithTheOperatingSystemsReason)
{
    const TempDir dir;
    dir.write("notes", "no program");
    const struct
    {
        std::string command;
        const char* workDir;
        int error;
    } cases[] = {{"", nullptr, ENOENT},
                 {" ", nullptr, ENOENT},
                 {"'true", nullptr, EINVAL},
                 {"no-such-program-here", nullptr, ENOENT},
                 {dir.path("notes"), nullptr, EACCES},
                 {"true", "/no/such/directory", ENOENT},
                 {"true " + std::string(4 << 20, 'x'), nullptr, E2BIG}};
    for (const auto& [command, workDir, error] : cases)
        EXPECT_EQ(Started(command, -1, -1, -1, 0, workDir).error, error) << command.substr(0, 40);
    EXPECT_EQ(Started("true", 1000).error, EBADF);
    EXPECT_EQ(Error_GetText(ENOENT), "No such file or directory");
}

TEST_F(Processes, StartWithDefaultSignalHandling)
{
    EXPECT_EQ(runInChild([] {
                  signal(SIGPIPE, SIG_IGN);
                  signal(SIGINT, [](int) {});
                  sigset_t all;
                  sigfillset(&all);
                  pthread_sigmask(SIG_BLOCK, &all, nullptr);
                  const std::string status = OutputOf("cat /proc/self/status");
                  const auto maskOf = [&](const std::string& name) {
                      const auto place = status.find(name + ":\t");
                      return place == std::string::npos
                                 ? ~0ull
                                 : std::stoull(status.substr(place + name.size() + 2), nullptr, 16);
                  };
                  constexpr unsigned long long ordinary = (1ull << 31) - 1; // the C library reserves two
                  return maskOf("SigBlk") != 0 || (maskOf("SigIgn") & ordinary) != 0;
              }),
              0);
}

TEST_F(Processes, OfOneGroupAreKilledTogether)
{
    Pipe out;
    Started started("sh -c \"sleep 60 & echo; wait\"", -1, out.output.Get(), -1, btkLaunchGroup);
    out.output.Reset();
    char line;
    ASSERT_EQ(btkRead(out.input.Get(), &line, 1), 1); // the background process is running
    Process_Kill(started.process.get());
    EXPECT_EQ(out.ReadAll(), ""); // no process holds the pipe
    EXPECT_EQ(started.Wait(), 128 + SIGKILL);
}

TEST_F(Processes, OpenedByIdAreWatchedButKeepTheirExitCode)
{
    Started started("sleep 60");
    btkProcess* opened = nullptr;
    ASSERT_TRUE(Process_Open(&opened, started.id));
    EXPECT_FALSE(Process_CanWait(opened));
    EXPECT_TRUE(Process_CheckRunning(opened));
    Process_Kill(opened);
    EXPECT_TRUE(WaitForEnd(opened));
    EXPECT_FALSE(Process_CheckRunning(opened));
    long code = 0;
    EXPECT_FALSE(Process_Wait(opened, &code, true, true));
    EXPECT_EQ(started.Wait(), 128 + SIGKILL);
    Process_Interrupt(opened); // reaches no process
    Process_Free(opened);

    std::promise<unsigned long> announced;
    std::promise<void> end;
    std::thread thread([&] {
        announced.set_value(static_cast<unsigned long>(gettid()));
        end.get_future().wait();
    });
    const unsigned long idOfThread = announced.get_future().get();
    for (const unsigned long id : {started.id, idOfThread, 0ul, 1ul << 31, ~0ul}) {
        EXPECT_FALSE(Process_Open(&opened, id)) << id;
        EXPECT_EQ(Error_GetLast(), static_cast<unsigned long>(ESRCH));
    }
    end.set_value();
    thread.join();
}

TEST_F(Processes, FreedWhileTheyRunLeaveNoZombie)
{
    Pipe in;
    unsigned long id;
    {
        Started reading("cat", in.input.Get());
        id = reading.id;
    }
    btkProcess* opened = nullptr;
    ASSERT_TRUE(Process_Open(&opened, id)); // it is still running
    EXPECT_TRUE(Process_CheckRunning(opened));
    in.output.Reset();
    EXPECT_TRUE(WaitForEnd(opened));
    Process_Free(opened);
    EXPECT_TRUE(hasNoChildren());
}

TEST_F(Processes, KeepTheirExitCodesWhileTheProgramIgnoresSigchld)
{
    EXPECT_EQ(runInChild([] {
                  signal(SIGCHLD, SIG_IGN);
                  Started started("true");
                  if (started.process == nullptr || !WaitForEnd(started.process.get()))
                      return 1;
                  return Process_CheckRunning(started.process.get()) || started.Wait() != -1 ? 2 : 0;
              }),
              0);
}

TEST_F(Processes, AreStartedAndWaitedForByManyThreads)
{
    std::atomic<int> wrong = 0;
    std::atomic<bool> done = false;
    std::thread busy([&] {
        while (!done) {
            delete new std::string(1000, 'x');
            wrong += runInChild([] { return 3; }) != 3;
        }
    });
    const int startsOfEach = ofALongRun(1000, 10000) / 8;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread)
        threads.emplace_back([&wrong, startsOfEach, thread] {
            for (int i = 0; i < startsOfEach; ++i) {
                const int code = thread * 30 + i % 30;
                if (i % 8 == 0)
                    wrong += Started("sh -c \"exit " + std::to_string(code) + "\"").Wait() != code;
                else
                    wrong += Started("true").Wait() != 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(Interrupter::interrupts, 0);
    done = true;
    busy.join();
    EXPECT_EQ(wrong, 0);
}
