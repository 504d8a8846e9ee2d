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
    explicit Shell(std::vector<std::string> arguments = {"rshd", "--port", "0"})
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

} // namespace

TEST(QelRsh, FindsAShellWhenTheServersEnvironmentNamesNone)
{
    const EnvSetting noShell("SHELL", nullptr), noComspec("COMSPEC", nullptr);
    const RunningQel server({"rshd", "--port", "0"});
    const Outcome outcome = Qel("rsh --port " + std::to_string(server.port()) +
                                " --shell --no-input localhost 'echo $((6 * 7))'");
    EXPECT_EQ(outcome.output, "42\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(QelRsh, BehavesLikeRunningTheCommandLocally)
{
    const Shell shell;
    const TempDir dir;
    dir.write("names", "b\nc\na\n");
    const std::string input = "<" + dir.path("names");
    const struct
    {
        std::string command, behind, output;
        int status;
    } cases[] = {
        {"sort", input, "a\nb\nc\n", 0},
        {"printf %s-%s 'a  b' \\''\"$x\\'", "", "a  b-'\"$x\\", 0},
        {"sh -c 'echo err >&2; exit 7'", "", "err\n", 7},
        {"sh -c 'kill -9 $$'", "", "", 137},
        {"ls --help --port 3", ">/dev/null", "", 0},
        {"head -c 3", "</dev/zero | tr '\\0' z", "zzz", 0},
        {"wc -c", "</dev/null", "0\n", 0},
        {"--no-input cat", "", "", 0}, // the test's own input may never end
        {"cat", "<&-", "", 0},
        {"yes", "| head -n 1", "y\n", 0},
        {"--shell 'echo $((6*7)); exit' 9", "", "42\n", 9},
        {"--directory " + dir.path() + " ls", "", "names\n", 0},
        {"no-such-program", "", "qel rsh: no-such-program: No such file or directory\n", 3},
    };
    for (const auto& [command, behind, output, status] : cases) {
        const Outcome outcome = command[0] == '-'
                                    ? Qel("rsh --port " + shell.port + " localhost " + command + " " + behind)
                                    : shell.run(command, behind);
        EXPECT_EQ(outcome.output, output) << command;
        EXPECT_EQ(outcome.status, status) << command;
    }
    const std::string port = shell.port;
    EXPECT_EQ(Qel("rsh localhost").status, 2);
    EXPECT_EQ(Qel("rsh --port 1 localhost true").output, "qel rsh: localhost, port 1: no answer\n");
    EXPECT_EQ(Qel("rsh --port 1 localhost true").status, 3);
}

TEST(QelRsh, TransfersMuchThroughPipes)
{
    const Shell shell;
    const auto checkOf = [](const std::string& line) {
        FILE* const pipe = popen((line + " | cksum").c_str(), "r");
        char text[100] = "";
        EXPECT_NE(std::fgets(text, sizeof text, pipe), nullptr);
        EXPECT_EQ(pclose(pipe), 0);
        return std::string(text);
    };
    const std::string remotely = QEL_PROGRAM " rsh --port " + shell.port + " localhost ";
    EXPECT_EQ(checkOf("seq 2000000 | " + remotely + "cat"), checkOf("seq 2000000"));
    EXPECT_EQ(checkOf(remotely + "sh -c 'seq 2000000 >&2' 2>&1 </dev/null"), checkOf("seq 2000000"));
}

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
    insist(client);
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(client.child.wait(), 3);
    EXPECT_LT(btkTimeval::Now() - start, btkTimeval(5.0));
    shell.server.child.signal(SIGCONT);
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

TEST(QelRsh, ReportsLostOutput)
{
    const Shell shell;
    const Outcome lost = shell.run("echo text", ">/dev/full");
    EXPECT_EQ(lost.status, 3);
    EXPECT_EQ(Qel("rsh --port " + shell.port + " localhost echo text 3>&1 1>/dev/full 2>&3 #").output,
              "qel rsh: not all of the command's output could be written\n");
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
    const Shell shell({"rshd", "--port", "0", "--sessions", "1", "--request-limit", "2"});
    // Above the limit of unfinished requests the oldest are closed, whatever they have sent; the others keep
    // their time.
    std::vector<std::unique_ptr<btkStreamSocket>> others;
    for (int i = 0; i < 80; ++i)
        others.push_back(Begun(shell, i % 2 == 0 ? "" : std::string(1, '\0')));
    EXPECT_TRUE(IsCut(*others[0]));
    EXPECT_FALSE(others.back()->IsReadable());
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(shell.run("echo fine").output, "fine\n");
    EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 1.0);

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
    const Shell shell({"rshd", "--port", "0", "--sessions", "1", "--patience", "1"});
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

TEST(QelRshd, IsFoundByNameAndIsAVersionedServer)
{
    const TestNameServer names;
    Shell shell({"rshd", "--port", "0", "--register", "--name", "shell"});
    EXPECT_EQ(Qel("rsh --name shell localhost echo here").output, "here\n");
    EXPECT_EQ(Qel("server ping shell").status, 0);
    EXPECT_EQ(Qel("rshd --port 0 --register --name shell").status, 3) << "there is one";
    EXPECT_EQ(Qel("server shutdown shell").status, 0);
    EXPECT_EQ(shell.server.child.wait(), 0);
    EXPECT_EQ(Qel("ns list").output, "");
}

TEST(QelRshd, RefusesToServeEveryMachine)
{
    const TempDir dir;
    const EnvSetting registry("QELSTD_REGISTRY", dir.path());
    const auto allow = [](const char* patterns) {
        return runInChild([patterns] { // has no roots of an earlier registry
            hmxRegistryKey key;
            return key.Create(hmxRegistry::System().root, "Software\\VRX\\rshd") &&
                           key.SetValue("ConnectionAllowed", patterns)
                       ? 0
                       : 1;
        });
    };
    for (const char* const interface : {"'*'", "0.0.0.0", "::", "127.example.com"})
        EXPECT_EQ(Qel(std::string("rshd --port 0 --interface ") + interface).status, 2) << interface;
    for (const char* const patterns : {"*", "10.1.2.3 *.*.*.*", "?*"}) {
        EXPECT_EQ(allow(patterns), 0);
        EXPECT_EQ(Qel("rshd --port 0 --interface '*'").status, 2) << patterns;
    }
    EXPECT_EQ(Qel("rshd --port 0 --name 'a.b'").status, 2);

    EXPECT_EQ(allow("10.1.* 192.168.0.5"), 0);
    const auto answer = [](const char* from, int port,
                           char byte = 0) { // the reply to the byte that requests a connection
        const btkFd socket(connectFrom(from, "10.9.9.9", port));
        return socket && btkWrite(socket.Get(), &byte, 1) == 1 && btkRead(socket.Get(), &byte, 1) == 1 ? byte
                                                                                                       : -1;
    };
    EXPECT_EQ(runInChild([&] {
                  if (!enterOwnNetwork({"127.0.0.1", "10.1.2.3", "10.2.2.3", "10.9.9.9"}))
                      return 0; // the system does not allow it
                  RunningQel server({"rshd", "--port", "0", "--interface", "10.9.9.9"});
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
