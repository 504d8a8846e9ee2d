// The number of system calls that a server makes for its clients, counted by strace.

#include <cstdio>

#include <qel/base/btksocket.h>
#include <qel/netserver.h>
#include <qel/xiolib.h>

#include "support/environment.h"
#include "support/faults.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/testserver.h"

namespace {

constexpr int rounds = 1000;

// Adds one to `rounds` integers, unless the server stops before.
void increment(netSocketStream& stream, evtEvent& stop)
{
    const Owned<ioEvent> input(stream.InputEvent());
    for (int left = rounds; left > 0; --left) {
        btkEvent::Wait({input.get(), &stop}, btkTimeval::Forever());
        if (stop.WasSignaled())
            break;
        stream.WriteInt(stream.ReadInt() + 1);
    }
}

} // namespace

/// The test below runs this one under strace: it writes its port, and serves until it is stopped.
TEST(CallsProgram, Serves)
{
    const char* const path = std::getenv("QEL_TEST_PORT");
    if (path == nullptr)
        GTEST_SKIP() << "run by another test";
    const Owned<netServer> server(netServer::Create(nullptr, 0));
    server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server->setOnAsyncRequest(qel::onAsyncRequest(&increment));
    server->setTimeSlice(10);
    std::ofstream(std::string(path) + ".new") << server->getPortN() << std::endl;
    std::filesystem::rename(std::string(path) + ".new", path);
    server->Run();
}

namespace {

/// That program under strace.
class CountedServer
{
public:
    CountedServer() : setting("QEL_TEST_PORT", dir.path("port").c_str())
    {
        run = std::thread([this] {
            status = runTraced("-f -c -o " + dir.path("calls"), "--gtest_filter=CallsProgram.Serves");
        });
        soon([this] { return std::ifstream(dir.path("port")) >> port && port != 0; });
    }
    ~CountedServer() { end(); }

    xrchandle<netAddress> address() const { return netAddress::Create(port, nullptr); }
    /// Stops it. Returns the number of calls.
    long callsOf(const std::string& name)
    {
        end();
        return callsIn(dir.path("calls"))[name];
    }

    int port = 0;
    int status = -1;

private:
    void end()
    {
        if (!run.joinable())
            return;
        if (port != 0)
            netServer::Shutdown(address().get());
        run.join();
    }

    TempDir dir;
    const EnvSetting setting;
    std::thread run;
};

// All calls except those of the start.
void expectCalls(CountedServer& server, std::initializer_list<const char*> names, double each)
{
    long all = 0;
    for (const char* const name : names)
        all += server.callsOf(name);
    EXPECT_EQ(server.status, 0);
    EXPECT_LE(static_cast<double>(all) / rounds, each + 0.2);
    EXPECT_GT(static_cast<double>(all) / rounds, each - 0.8);
}

} // namespace

TEST(netServerCalls, RequestOnAnOpenConnectionTakesThree)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    CountedServer server;
    ASSERT_NE(server.port, 0);
    {
        const Owned<netSocketStream> client(netServer::Connect(server.address().get(), 10.0));
        ASSERT_NE(client, nullptr);
        for (int i = 0; i < rounds; ++i) {
            client->WriteInt(i);
            ASSERT_EQ(client->ReadInt(), i + 1);
        }
    }
    expectCalls(server,
                {"ppoll", "poll", "recvmsg", "recvfrom", "sendto", "sendmsg", "ioctl", "read", "write"}, 3);
}

TEST(netServerCalls, PingTakesFiveBesideTheLoopsWait)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    CountedServer server;
    ASSERT_NE(server.port, 0);
    const xrchandle<netAddress> address = server.address();
    for (int i = 0; i < rounds; ++i)
        ASSERT_TRUE(netServer::IsAlive(address.get()));
    // A wait finds the connection, and another one its first byte.
    expectCalls(server,
                {"accept4", "poll", "recvmsg", "recvfrom", "sendto", "ioctl", "fcntl", "setsockopt",
                 "getsockname", "getpeername", "shutdown", "close"},
                4);
}
