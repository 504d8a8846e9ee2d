#include <sys/socket.h>

#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/longrun.h"
#include "support/owned.h"
#include "support/programs.h"
#include "support/resident.h"
#include "support/streampair.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"

namespace {

constexpr double aWhile = 20;

std::string ReadAll(ioStream& stream)
{
    std::string all;
    const Owned<ioEvent> input(stream.InputEvent());
    while (input->Wait(aWhile)) {
        const std::size_t count = stream.PeekNBytes();
        if (count == 0)
            return all;
        all.resize(all.size() + count);
        stream.ReadBytes(all.data() + all.size() - count, static_cast<unsigned>(count));
    }
    ADD_FAILURE() << "the output does not end";
    return all;
}

// A command that runs at the other end of a separate connection.
struct Remote
{
    explicit Remote(const char* command, unsigned char useShell = 1, const char* workDir = nullptr,
                    const char* baseDir = nullptr, ioStream* in = nullptr, ioStream* out = nullptr,
                    ioStream* err = nullptr)
        : server(rshServer::Create(pair.far.get(), baseDir, 0)),
          process(rshProcess::Create(pair.near.get(), command, workDir, in, out, err, useShell, 0))
    {
    }
    // The exit code once both ends have exited.
    int Wait() const
    {
        const Owned<rshEvent> end(process->ExitEvent());
        EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
        EXPECT_EQ(end->getProcess(), process.get());
        EXPECT_EQ(process->IsRunning(), 0);
        ExpectServerToEnd();
        return process->GetExitCode();
    }
    void ExpectServerToEnd() const
    {
        const Owned<rshServerEvent> end(server->ExitEvent());
        EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
        EXPECT_EQ(end->getServer(), server.get());
    }
    std::string Output() const { return ReadAll(*process->getStdout()); }
    void Write(const std::string& text) const
    {
        process->getStdin()->WriteBytes(text.data(), static_cast<unsigned>(text.size()));
    }

    StreamPair pair;
    Owned<rshServer> server;
    Owned<rshProcess> process;
};

class RemoteShell : public Processes
{
protected:
    // A server whose patience ends is late.
    RemoteShell() { rshServer::setPatience(3 * aWhile); }

private:
    const EnvSetting shell{"SHELL", "/bin/sh"};
};

} // namespace

TEST_F(RemoteShell, RelaysOutputsAndTheExitCode)
{
    const Remote remote("printf abc; printf 'd \"e\"' >&2; exit 2");
    EXPECT_EQ(remote.Output(), "abc");
    EXPECT_EQ(ReadAll(*remote.process->getStderr()), "d \"e\"");
    EXPECT_EQ(remote.Wait(), 2);
    EXPECT_EQ(remote.process->GetExitCode(), 2);
}

TEST_F(RemoteShell, UsesTheCallersStreams)
{
    const Owned<ioStringStream> in(ioStringStream::Create("b\na\nc\n")),
        out(ioStringStream::Create(xnullstr)), err(ioStringStream::Create(xnullstr));
    const Remote remote("sort; echo done >&2", 1, nullptr, nullptr, in.get(), out.get(), err.get());
    EXPECT_EQ(remote.process->getStdin(), nullptr);
    EXPECT_EQ(remote.process->getStdout(), nullptr);
    EXPECT_EQ(remote.process->getStderr(), nullptr);
    EXPECT_EQ(remote.Wait(), 0);
    EXPECT_EQ(textOf(out->getStr()), "a\nb\nc\n");
    EXPECT_EQ(textOf(err->getStr()), "done\n");
}

TEST_F(RemoteShell, ReportsWhyACommandDoesNotStart)
{
    const std::string tooLong = "echo " + std::string(3 << 20, 'x');
    const struct
    {
        const char* command;
        const char* workDir;
        const char* message;
    } cases[] = {{"no-such-program", nullptr, "No such file or directory"},
                 {"true", "missing", "No such file or directory"},
                 {tooLong.c_str(), nullptr, "Argument list too long"},
                 {"'", nullptr, "Invalid argument"}};
    for (const auto& tried : cases) {
        const auto start = [&] { Remote(tried.command, 0, tried.workDir, "/"); };
        const auto failureText = [](rshXProcess* failure) {
            EXPECT_EQ(failure->getError(), rshDaemonError);
            EXPECT_EQ(failure->getCreateError(), pcCreateCode::system);
            return textOf(failure->getMsg());
        };
        EXPECT_EQ(describeThrown<rshXProcess>(start, failureText), tried.message);
    }
}

TEST_F(RemoteShell, FindsTheWorkingDirectoryBelowItsBase)
{
    const TempDir dir;
    dir.makeDir("work/a");
    const std::string inner = std::filesystem::canonical(dir.path("work/a")).string();
    const std::pair<std::string, std::string> cases[] = {{"work/a", dir.path()}, {inner, "/nowhere"}};
    for (const auto& [workDir, baseDir] : cases) {
        const Remote remote("pwd -P", 0, workDir.c_str(), baseDir.c_str());
        EXPECT_EQ(remote.Output(), inner + "\n");
        EXPECT_EQ(remote.Wait(), 0);
    }
}

// The ends are separate processes, as in real use, and neither buffers more than a little.
TEST_F(RemoteShell, TransfersMuchInBothDirectionsInLittleMemory)
{
    const std::size_t total = ofALongRun(std::size_t{64} << 20, std::size_t{1} << 30), part = 1 << 16;
    constexpr long mostKib = 16 << 10;
    StreamPair pair;
    ChildProcess server([&] {
        pair.near.reset();
        const Interrupter here;
        const ResidentGrowth growth;
        const bool isServed = rshServer::Execute(pair.far.get(), nullptr, nullptr) != 0;
        return !isServed ? 1 : growth.peak() > mostKib ? 2 : 0;
    });
    pair.far.reset();
    const ResidentGrowth growth;
    const Owned<rshProcess> process(
        rshProcess::Create(pair.near.get(), "cat", nullptr, nullptr, nullptr, nullptr, 0, 0));
    std::thread writer([&] {
        std::mt19937_64 random(1);
        std::string block(part, ' ');
        for (std::size_t done = 0; done < total; done += part) {
            for (std::size_t i = 0; i < part; i += 8) {
                const std::uint64_t bits = random();
                std::memcpy(&block[i], &bits, 8);
            }
            process->getStdin()->WriteBytes(block.data(), part);
        }
        process->getStdin()->Close();
    });
    std::mt19937_64 random(1);
    std::size_t done = 0, wrong = 0;
    for (; done < total; done += 8) {
        std::uint64_t bits = 0;
        if (process->getStdout()->ReadBytes(&bits, 8) != 8)
            break;
        wrong += bits != random();
    }
    writer.join();
    EXPECT_EQ(done, total);
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(ReadAll(*process->getStdout()), "");
    EXPECT_EQ(process->WaitExitCode(), 0);
    EXPECT_LE(growth.peak(), mostKib);
    EXPECT_GE(growth.peak(), 0);
    EXPECT_EQ(server.wait(), 0);
}

TEST_F(RemoteShell, HandlesCommandsThatReadNothingOrLeaveChildren)
{
    const std::string much(1 << 20, 'm');
    const struct
    {
        const char* command;
        std::size_t input;
        std::string output;
    } cases[] = {
        {"yes | head -1", 0, "y\n"},
        {"cat", much.size(), much},
        {"echo early", much.size(), "early\n"},
        {"exec <&-; sleep 0.1; echo closed", much.size(), "closed\n"},
        {"head -c 3", much.size(), "mmm"},
        {"sleep 10 & echo front", 0, "front\n"},
        {"head -c 1000000 /dev/zero | tr '\\0' m; cat | wc -c >&2", much.size(), much.substr(0, 1000000)},
    };
    for (const auto& [command, input, output] : cases) {
        SCOPED_TRACE(command);
        const auto start = btkTimeval::Now();
        const Remote remote(command);
        std::thread writer([&, size = input] {
            allowStreamFailure([&] { // when the command exits without reading all
                remote.Write(much.substr(0, size));
                remote.process->getStdin()->Close();
            });
        });
        EXPECT_TRUE(remote.Output() == output);
        writer.join();
        EXPECT_EQ(remote.Wait(), 0);
        EXPECT_LT(btkTimeval::Now() - start, btkTimeval(8.0));
    }
}

TEST_F(RemoteShell, InterruptsAndTerminatesTheWholeGroup)
{
    // Nothing, more than the command's pipe and the server's queue hold, and more than all buffers hold.
    for (const std::size_t input : {0, 200000, 20000000})
        for (const bool kill : {false, true}) {
            SCOPED_TRACE(input);
            const Remote remote("sh -c 'echo ready; exec sleep 60'; exit 3");
            char ready[6];
            EXPECT_EQ(remote.process->getStdout()->ReadBytes(ready, 6), 6u);
            std::thread writer([&] { allowStreamFailure([&] { remote.Write(std::string(input, 'x')); }); });
            if (input > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(300)); // it is stuck by then
            EXPECT_EQ(remote.process->GetExitCode(), xnullint);
            EXPECT_EQ(remote.process->IsRunning(), 1);
            if (kill)
                remote.process->Terminate();
            else
                remote.process->Interrupt();
            const btkTimeval start = btkTimeval::Now();
            EXPECT_EQ(remote.Wait(), 128 + (kill ? SIGKILL : SIGINT));
            EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 1.5);
            EXPECT_EQ(remote.Output(), "");
            writer.join();
        }
}

TEST_F(RemoteShell, EndsWhenTheServerIsStopped)
{
    const Remote remote("sleep 60", 0);
    remote.server->Terminate();
    remote.server->Terminate();
    EXPECT_EQ(remote.Wait(), 128 + SIGKILL);

    const StreamPair silent; // a client that sends no request
    const Owned<rshServer> idle(rshServer::Create(silent.far.get(), nullptr, 0));
    idle->Terminate();
    const Owned<rshServerEvent> end(idle->ExitEvent());
    EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
}

TEST_F(RemoteShell, SurvivesTheOtherEndsExitAtAnyMoment)
{
    std::minstd_rand random(7);
    for (int round = 0; round < 100; ++round) {
        const Remote remote("cat; sleep 60");
        std::thread reader([&] { ReadAll(*remote.process->getStdout()); });
        for (auto parts = random() % 40; parts > 0; --parts)
            remote.Write(std::string(random() % 20000, 'x'));
        if (round % 2 == 0) {
            const linger reset = {1, 0};
            setsockopt(remote.pair.nearSocket->GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        shutdown(remote.pair.nearSocket->GetHandle(), round % 3 == 0 ? SHUT_WR : SHUT_RDWR);
        // A client that still reads gets the end when the server's owner closes the connection.
        remote.ExpectServerToEnd();
        remote.pair.far->Close();
        EXPECT_EQ(remote.Wait(), xnullint);
        reader.join();
    }
}

TEST_F(RemoteShell, AbandonsACommandWhenItsObjectIsFreed)
{
    Remote remote("yes", 0);
    remote.process.reset();
    remote.pair.near->Close();
    remote.ExpectServerToEnd();
}

TEST(RemoteShellDeathTest, AbortsOperationsThatNeedAStartedThread)
{
    EXPECT_DEATH(rshConnection::Create("user", "host"), "rshConnection::Create not implemented");
    EXPECT_DEATH(
        {
            const Remote remote("true", 0);
            remote.Wait();
            remote.process->Close();
            remote.process->Terminate();
        },
        "not started");
}
