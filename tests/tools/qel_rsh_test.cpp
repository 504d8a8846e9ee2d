#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <qel/base/btkprocess.h>
#include <qel/base/btksocket.h>
#include <qel/base/nethandshake.h>
#include <qel/hmxregistry.h>
#include <qel/netaddress.h>
#include <qel/netserver.h>

#include "support/addresses.h"
#include "support/environment.h"
#include "support/nameserver.h"
#include "support/owned.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

// `qel rshd` on a free port, and `qel rsh` with it.
struct Shell
{
    explicit Shell(std::vector<std::string> arguments = {"rshd", "--as-root", "--port", "0"})
        : server(std::move(arguments)), port(std::to_string(server.port()))
    {
    }
    // `before` and `behind`: the rest of the shell's command line.
    Outcome run(const std::string& arguments, const std::string& behind = "") const
    {
        return Qel("rsh --port " + port + " localhost " + arguments + " " + behind);
    }
    RunningQel start(const std::string& line) const
    {
        return RunningQel({"rsh", "--port", port, "--shell", "localhost", line});
    }

    const EnvSetting shell{"SHELL", "/bin/sh"};
    RunningQel server;
    std::string port;
};

// Whether the process, which is no child of this one, exits within `seconds`.
bool Ends(const std::string& id, double seconds = 2.0)
{
    btkProcess* process = nullptr;
    if (!Process_Open(&process, std::strtoul(id.c_str(), nullptr, 10)))
        return true;
    const bool ended = btkIsReadable(Process_GetExitHandle(process), btkTimeval(seconds));
    Process_Free(process);
    return ended;
}

// In place of ssh: runs the command line on this machine.
std::string viaShell(const TempDir& dir)
{
    dir.write("ssh",
              "#!/bin/sh\nexec env SHELL=/bin/sh PATH=\"$(dirname " QEL_PROGRAM "):$PATH\" sh -c \"$2\"\n");
    std::filesystem::permissions(std::string(dir.path("ssh")), std::filesystem::perms::owner_all);
    return dir.path("ssh");
}

} // namespace

TEST(QelRsh, ForwardsInterrupts)
{
    const Shell shell;
    RunningQel client = shell.start(
        "trap 'n=$((n+1)); echo $n; [ $n -lt 2 ] || exit 5' INT; echo ready; while :; do sleep 0.01; done");
    EXPECT_EQ(client.line(), "ready");
    client.child.signal(SIGINT);
    EXPECT_EQ(client.line(), "1");
    client.child.signal(SIGINT);
    EXPECT_EQ(client.rest(), "2\n");
    EXPECT_EQ(client.child.wait(), 5);
}

TEST(QelRsh, ThirdInterruptEndsCommandOrClient)
{
    const Shell shell;
    const auto insist = [](RunningQel& client) {
        for (int i = 0; i < 3; ++i) {
            client.child.signal(SIGINT);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    };
    RunningQel deaf = shell.start("trap '' INT; echo ready; exec sleep 60");
    EXPECT_EQ(deaf.line(), "ready");
    insist(deaf);
    EXPECT_EQ(deaf.child.wait(), 137);

    RunningQel client = shell.start("echo ready; exec sleep 60");
    EXPECT_EQ(client.line(), "ready");
    shell.server.child.signal(SIGSTOP);
    ASSERT_TRUE(shell.server.child.waitUntilStopped());
    insist(client);
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(client.child.wait(), 3);
    EXPECT_LT(btkTimeval::Now() - start, btkTimeval(5.0));
    shell.server.child.signal(SIGCONT);
}

TEST(QelRsh, InterruptsOvertakeInputAndEndsArriveOverAnotherProgram)
{
    const TempDir dir;
    const std::string via = viaShell(dir);
    const auto start = [&](const std::string& line) {
        return std::make_unique<RunningQel>(
            std::vector<std::string>{"rsh", "--via", via, "--shell", "build7", line});
    };
    // The command reads no input, and all that can be held of it is there.
    const auto client =
        start("trap 'echo interrupted; exit 5' INT; echo ready; while :; do sleep 0.01; done");
    EXPECT_EQ(client->line(), "ready");
    const std::string block(65536, 'x');
    std::size_t held = 0;
    for (std::ptrdiff_t count = 1; count > 0 && held < (64u << 20); held += static_cast<std::size_t>(count)) {
        for (int waits = 0;
             (count = btkTryWrite(client->input.Get(), block.data(), block.size())) == 0 && waits < 100;
             ++waits)
            btkIsReadable(client->output.Get(), btkTimeval(0.01));
    }
    EXPECT_LT(held, 64u << 20);
    client->child.signal(SIGINT);
    EXPECT_EQ(client->line(), "interrupted");
    EXPECT_EQ(client->child.wait(), 5);

    const auto killed = start("echo $$; sleep 60; echo");
    const std::string command = killed->line();
    killed->child.signal(SIGKILL);
    EXPECT_TRUE(Ends(command, 10.0)) << "as its client is lost";
}

TEST(QelRsh, KillingTheClientEndsTheCommand)
{
    const Shell shell;
    RunningQel client = shell.start("echo $$; sleep 60; echo");
    const std::string command = client.line();
    client.child.signal(SIGKILL);
    EXPECT_TRUE(Ends(command));
    EXPECT_EQ(shell.run("echo fine").output, "fine\n");
}

TEST(QelRsh, ReportsALostConnectionWhenTheServerIsKilled)
{
    Shell shell;
    RunningQel client = shell.start("echo $$; exec cat");
    const std::string command = client.line();
    shell.server.child.signal(SIGKILL);
    EXPECT_EQ(client.child.wait(), 3);
    EXPECT_TRUE(Ends(command));
}

TEST(QelRshd, StopsAtSigtermWithItsCommands)
{
    Shell shell;
    RunningQel client = shell.start("echo $$; exec sleep 60");
    const std::string command = client.line();
    shell.server.child.signal(SIGTERM);
    EXPECT_EQ(shell.server.child.wait(), 0);
    EXPECT_EQ(client.child.wait(), 128 + SIGKILL);
    EXPECT_TRUE(Ends(command));
}

namespace {

// A connection that has been admitted and has sent `bytes` of a request.
std::unique_ptr<btkStreamSocket> Begun(const Shell& shell, const std::string& bytes)
{
    auto socket = std::make_unique<btkStreamSocket>();
    EXPECT_TRUE(socket->Connect("localhost", std::atoi(shell.port.c_str()), btkTimeval(10.0)));
    socket->SetRecvLimit(btkTimeval(10.0));
    EXPECT_EQ(netAsk(*socket, netRequestCode::open), netAdmitted);
    socket->Send(bytes.data(), bytes.size());
    return socket;
}

// Whether it ends without a reply.
bool IsCut(btkStreamSocket& socket)
{
    char byte = 0;
    const std::ptrdiff_t count = socket.Recv(&byte, 1);
    return count == 0 || (count < 0 && errno == ECONNRESET);
}

} // namespace

TEST(QelRshd, ClosesClientsThatSendNoRequest)
{
    const Shell shell({"rshd", "--as-root", "--port", "0", "--sessions", "1", "--request-limit", "2"});
    // Above the limit of unfinished requests the oldest are closed, whatever they have sent; the others keep
    // their time.
    std::vector<std::unique_ptr<btkStreamSocket>> others;
    for (int i = 0; i < 80; ++i)
        others.push_back(Begun(shell, i % 2 == 0 ? "" : std::string(1, '\0')));
    EXPECT_TRUE(IsCut(*others[0]));
    EXPECT_FALSE(others.back()->IsReadable());
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(shell.run("echo fine").output, "fine\n");
    EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 1.9) << "before the others' time has passed";

    // Also one that continues to send.
    const auto drips = Begun(shell, std::string("\0\0\3\xe8", 4));
    const btkTimeval begun = btkTimeval::Now();
    while (!drips->IsReadable(btkTimeval(0.05)) && btkTimeval::Now() < begun + btkTimeval(10.0))
        drips->Send("x", 1);
    EXPECT_TRUE(IsCut(*drips));
    EXPECT_LT((btkTimeval::Now() - begun).ToSeconds(), 2.0 * 1.1 + 0.5);
}

TEST(QelRshd, ClosesClientsThatStayAfterTheirCommand)
{
    const Shell shell({"rshd", "--as-root", "--port", "0", "--sessions", "1", "--patience", "1"});
    const auto done = Begun(shell, std::string("\0\0\0\4true\0\0\0\0\0\0\0\0\0\0\0\5", 20));
    char end[16];
    EXPECT_EQ(done->RecvAll(end, sizeof end), sizeof end); // running, 6, the exit code, 7
    const Outcome refused = shell.run("echo early");
    EXPECT_EQ(refused.output, "qel rsh: echo: the server runs as many commands as it may\n");
    EXPECT_EQ(refused.status, 3);
    EXPECT_TRUE(IsCut(*done));
    for (const btkTimeval until = btkTimeval::Now() + btkTimeval(5.0); btkTimeval::Now() < until;)
        if (shell.run("echo fine").output == "fine\n")
            return;
    FAIL() << "the place is not free";
}

TEST(QelRshd, AdmitsOnlyTheMachinesOfItsList)
{
    const TempDir dir;
    const EnvSetting registry("QELSTD_REGISTRY", dir.path());
    ASSERT_EQ(Qel("reg set --system 'Software\\VRX\\rshd' ConnectionAllowed '10.1.* 192.168.0.5'").status, 0);
    const auto answer = [](const char* from, int port,
                           char byte = 0) { // the reply to the byte that requests a connection
        const btkFd socket(connectFrom(from, "10.9.9.9", port));
        return socket && btkWrite(socket.Get(), &byte, 1) == 1 && btkRead(socket.Get(), &byte, 1) == 1 ? byte
                                                                                                       : -1;
    };
    EXPECT_EQ(
        runInChild([&] {
            if (!enterOwnNetwork({"127.0.0.1", "10.1.2.3", "10.2.2.3", "10.9.9.9"}))
                return 0; // the system does not allow it
            RunningQel server({"rshd", "--as-root", "--port", "0", "--interface", "10.9.9.9", "--insecure"});
            const int port = server.port();
            if (answer("10.1.2.3", port) != 1)
                return 1;
            if (answer("10.2.2.3", port) != 0)
                return 2;
            if (answer("10.2.2.3", port, 1) != 1 || answer("10.2.2.3", port, 7) != -1)
                return 4; // every peer gets a reply to a ping, none to an unknown code
            std::filesystem::remove_all(dir.path());
            return answer("10.1.2.3", port) == 0 ? 0 : 3; // without a list no peer is admitted
        }),
        0);
}

TEST(QelRshd, AdmitsUsersOfItsMachineThatAreAllowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot become another user";
    const auto answer = [](const std::vector<std::string>& options, uid_t user) {
        std::vector<std::string> words = {"rshd", "--as-root", "--port", "0"};
        words.insert(words.end(), options.begin(), options.end());
        RunningQel server(QEL_PROGRAM, words, true);
        const int port = server.port();
        return runInChild([&] {
            btkStreamSocket socket;
            if (setuid(user) != 0 || !socket.Connect(nullptr, port, btkTimeval(10.0)))
                return 100;
            return netAsk(socket, netRequestCode::open);
        });
    };
    EXPECT_EQ(answer({}, 0), netAdmitted) << "its own";
    EXPECT_EQ(answer({}, 1001), netRefused);
    EXPECT_EQ(answer({"--allow-user", "1001", "--allow-user", "daemon"}, 1001), netAdmitted);
    EXPECT_EQ(answer({"--allow-user", "1001", "--allow-user", "daemon"}, 1002), netRefused);
    EXPECT_EQ(answer({"--allow-user", "*"}, 1002), netAdmitted);
    EXPECT_EQ(Qel("rshd --as-root --port 0 --allow-user no-such-user").status, 2);
}
