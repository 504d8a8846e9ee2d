#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/hmxregistry.h>
#include <qel/xiolib.h>
#include <qel/xnetlib.h>

#include "failure.h"
#include "support/addresses.h"
#include "support/child.h"
#include "support/closedport.h"
#include "support/descriptors.h"
#include "support/environment.h"
#include "support/interrupt.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/testserver.h"

using namespace std::literals;

namespace {

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

constexpr btkTimeval patience(10, 0);

// Adds one to an integer.
const auto incrementing =
    qel::onRequest([](netSocketStream& stream) { stream.WriteInt(stream.ReadInt() + 1); });

netServer* makeServer(const char* name = nullptr)
{
    netServer* const server = netServer::Create(name, 0);
    server->setOnRequest(incrementing.get());
    return server;
}

// The server's reply to `bytes` until it closes the connection.
std::string answerTo(int port, const std::string& bytes, bool endsOutput = false)
{
    btkStreamSocket socket;
    if (!socket.Connect(nullptr, port, patience))
        return "no connection";
    socket.SetRecvLimit(patience);
    socket.Send(bytes.data(), bytes.size());
    if (endsOutput)
        socket.ShutdownOutput();
    std::string answer(1000, '\0');
    answer.resize(socket.RecvAll(answer.data(), answer.size()));
    return answer;
}

constexpr const char* refused = "3 Connection refused due to lack of rights";

// Accepts one connection, receives a byte, and runs the test's action on it.
class Peer
{
public:
    template<typename Work>
    explicit Peer(Work work)
    {
        listens = door.Listen(0, "127.0.0.1");
        loop = std::thread([this, work] {
            btkStreamSocket accepted;
            char byte = 0;
            if (door.Wait(patience, 1) == 1 && door.Accept(&accepted) && accepted.Recv(&byte, 1) == 1)
                work(accepted);
        });
    }
    ~Peer() { loop.join(); }
    xrchandle<netAddress> address() { return netAddress::Create(door.GetPortN(), nullptr); }

    bool listens = false;

private:
    btkAcceptSocket door;
    std::thread loop;
};

} // namespace

// ---- the handshake, byte by byte

TEST(netServer, RepliesToEachRequestCode)
{
    ServedInThread served(makeServer());
    const int port = served.getPort();

    EXPECT_EQ(answerTo(port, "\1"), "\1");
    EXPECT_EQ(answerTo(port, "\2"), std::string("\1\x1b") + "QEL netServer Version 0.99" + '\0');
    EXPECT_EQ(answerTo(port, "\7"), "");
    EXPECT_EQ(answerTo(port, "\xff"), "");
    EXPECT_EQ(answerTo(port, "", true), "");
    EXPECT_EQ(answerTo(port, "\1", true), "\1"); // a client that has closed its output gets the reply, too
    // Bytes that arrive together with the code belong to the stream.
    EXPECT_EQ(answerTo(port, std::string("\0\0\0\0\4", 5)), std::string("\1\0\0\0\5", 5));
    EXPECT_EQ(answerTo(port, "\3"), "\1");
    served.waitForEnd();
}

TEST(netServer, NamesAndHostsAreEveryKindOfText)
{
    const TestNameServer names;
    const auto isServed = [](auto name, auto host) {
        ServedInThread served(netServer::Create(name, 0, host));
        const xrchandle<netAddress> byName = netAddress::Create(name, host);
        const xrchandle<netAddress> byPort = netAddress::Create(served.getPort(), host);
        EXPECT_TRUE(byName->getServerName() == xstring(name) && byName->getHostName() == xstring(host));
        EXPECT_TRUE(netServer::IsAlive(byPort.get()));
        return netServer::IsAlive(byName.get()) != 0;
    };

    EXPECT_TRUE(isServed("literal", u"127.0.0.1"));
    EXPECT_TRUE(isServed("std"s, "127.0.0.1"sv));
    EXPECT_TRUE(isServed(u8"gr\u00FCn", xstring("127.0.0.1")));
    EXPECT_TRUE(isServed(xstring("string"), nullptr));
    ServedInThread served(netServer::Create(u"wide"sv, 0));
    EXPECT_TRUE(netServer::IsAlive(xrchandle(netAddress::Create(u"wide"s, nullptr)).get()));
}

TEST(netServer, ClientsReportAMissingServer)
{
    const ClosedPort closed;
    const xrchandle<netAddress> address(netAddress::Create(closed.get(), nullptr));

    EXPECT_EQ(netServer::Connect(address.get(), 10.0), nullptr);
    EXPECT_FALSE(netServer::IsAlive(address.get()));
    EXPECT_EQ(failureOf([&] { netServer::GetVersion(address.get()); }), "3 Connection refused");
    EXPECT_EQ(failureOf([&] { netServer::Shutdown(address.get()); }), "");
    EXPECT_EQ(failureOf([] { netServer::IsAlive(nullptr); }), "1 Address is nil!");
}

TEST(netServerClient, DistinguishesARefusalFromSilence)
{
    const auto refuse = [](btkStreamSocket& socket) { socket.Send("\0", 1); };
    const auto close = [](btkStreamSocket& socket) { socket.Close(); };

    EXPECT_EQ(failureOf([&] { netServer::Connect(Peer(refuse).address().get(), 10.0); }), refused);
    EXPECT_FALSE(netServer::IsAlive(Peer(refuse).address().get()));
    EXPECT_EQ(failureOf([&] { netServer::GetVersion(Peer(refuse).address().get()); }), refused);
    EXPECT_EQ(failureOf([&] { netServer::Shutdown(Peer(refuse).address().get()); }), refused);

    EXPECT_EQ(netServer::Connect(Peer(close).address().get(), 10.0), nullptr);
    EXPECT_TRUE(netServer::IsAlive(Peer(close).address().get()));
    EXPECT_EQ(failureOf([&] { netServer::GetVersion(Peer(close).address().get()); }), refused);
    EXPECT_EQ(failureOf([&] { netServer::Shutdown(Peer(close).address().get()); }), refused);
}

TEST(netServerClient, ReturnsTheReceivedPartOfAVersion)
{
    const auto answer = [](const std::string& bytes) {
        const xstring text = netServer::GetVersion(
            Peer([&](btkStreamSocket& socket) { socket.Send(bytes.data(), bytes.size()); }).address().get());
        return std::string(text.CastToCString());
    };
    EXPECT_EQ(answer(std::string("\1\4abc\0", 6)), "abc");
    EXPECT_EQ(answer("\1\xff" + std::string(255, 'v')), std::string(255, 'v'));
    EXPECT_EQ(answer("\1\x10"
                     "abc"),
              "abc"); // truncated
    EXPECT_EQ(answer(std::string("\1\0", 2)), "");
    EXPECT_EQ(answer("\1"), "");
}

// ---- rights

TEST(netServer, AdmitsPeersByTheirRightsUnlessTheyAreOnTheSameMachine)
{
    expectSuccessInChild("no network of its own on this host", [] {
        if (!enterOwnNetwork({"127.0.0.1", "10.9.9.9", "10.1.2.3"}))
            return notAllowed;
        const TempDir dir(TempDir::InMemory);
        const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
        const TestNameServer names;
        ServedInThread served(makeServer("svc"));
        const auto fromFar = [&](char code) {
            btkStreamSocket socket;
            socket.Adopt(btkFd(connectFrom("10.1.2.3", "10.9.9.9", served.getPort())));
            socket.SetRecvLimit(patience);
            socket.Send(&code, 1);
            char answer = 0;
            return socket.RecvAll(&answer, 1) == 1 ? answer : -1;
        };
        const auto allow = [](const char* patterns) {
            hmxRegistryKey key;
            EXPECT_TRUE(key.Create(hmxRegistry::User().root, "Software\\VRX\\svc"));
            EXPECT_TRUE(key.SetValue("ConnectionAllowed", patterns));
        };

        EXPECT_EQ(fromFar(2), 1);
        allow("10.1.* 192.168.0.5");
        EXPECT_EQ(fromFar(2), 1);
        allow("192.168.*");
        EXPECT_EQ(fromFar(0), 0);
        EXPECT_EQ(fromFar(2), 0);
        EXPECT_EQ(fromFar(3), 0);
        EXPECT_EQ(fromFar(1), 1); // every peer may ping
        // This machine needs no rights.
        EXPECT_EQ(answerTo(served.getPort(), "\2").substr(0, 1), "\1");
        return 0;
    });
}

TEST(netServer, WarnsOfListsThatAdmitEveryMachine)
{
    const TempDir dir(TempDir::InMemory);
    const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
    const TestNameServer names;
    const auto warningOf = [](const char* name, const char* interface) {
        testing::internal::CaptureStderr();
        const Owned<netServer> server(netServer::Create(name, 0, interface));
        return testing::internal::GetCapturedStderr();
    };
    const std::string open = "netServer: every machine may connect to ";

    EXPECT_EQ(warningOf("a.b", nullptr), open + "\"a.b\": no key of the registry can have such a name\n");
    EXPECT_EQ(warningOf("ab", nullptr), open + "\"ab\": the registry has no rights for it\n");
    EXPECT_EQ(warningOf("ab", "127.0.0.1"), "");
    EXPECT_EQ(warningOf(nullptr, nullptr), "");
    hmxRegistryKey key;
    ASSERT_TRUE(key.Create(hmxRegistry::User().root, "Software\\VRX\\ab"));
    ASSERT_TRUE(key.SetValue("ConnectionAllowed", "10.*"));
    EXPECT_EQ(warningOf("ab", nullptr), "");
    EXPECT_FALSE(IsConnectionRestrictable(nullptr));
}

// ---- misbehaving clients

TEST(netServer, ClosesSilentClientsAfterATimeout)
{
    const long before = openDescriptors();
    {
        ServedInThread served([] {
            netServer* const server = makeServer();
            server->setSilentPatience(1.5);
            EXPECT_EQ(server->getSilentPatience(), 1.5);
            server->setSilentPatience(0);
            EXPECT_EQ(server->getSilentPatience(), 1.5);
            return server;
        }());
        const btkTimeval start = btkTimeval::Now();
        btkStreamSocket silent;
        ASSERT_TRUE(silent.Connect(nullptr, served.getPort(), patience));
        EXPECT_EQ(answerTo(served.getPort(), "\1"), "\1"); // meanwhile the next one is served
        char byte = 0;
        EXPECT_EQ(silent.Recv(&byte, 1), 0);
        const double seconds = (btkTimeval::Now() - start).ToSeconds();
        EXPECT_GE(seconds, 1.5);
        EXPECT_LT(seconds, 4.0);

        // A client that sends its byte late is served.
        btkStreamSocket late;
        ASSERT_TRUE(late.Connect(nullptr, served.getPort(), patience));
        EXPECT_FALSE(late.IsReadable(btkTimeval(0.1)));
        late.Send("\1", 1);
        EXPECT_EQ(late.Recv(&byte, 1), 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(netServer, ClosesTheOldestSilentClientWhenDescriptorsRunOut)
{
    ServedInThread served(makeServer());
    btkStreamSocket silent;
    ASSERT_TRUE(silent.Connect(nullptr, served.getPort(), patience));
    EXPECT_EQ(answerTo(served.getPort(), "\1"), "\1"); // the silent one has been accepted before
    const DescriptorLimit limit(200);
    std::vector<btkFd> others;
    for (int taken = dup(0); taken >= 0; taken = dup(0))
        others.emplace_back(taken);
    others.pop_back();
    btkStreamSocket honest;
    ASSERT_TRUE(honest.Connect(nullptr, served.getPort(), patience));
    honest.Send("\1", 1);
    char byte = 0;
    honest.SetRecvLimit(patience);
    EXPECT_EQ(honest.Recv(&byte, 1), 1);
    EXPECT_EQ(silent.Recv(&byte, 1), 0);
}

TEST(netServer, EachAddressKeepsItsTimeForAFirstByteWhileAnotherConnectsContinuously)
{
    ServedInThread served([] {
        netServer* const server = netServer::Create(nullptr, 0, "127.0.0.1");
        server->setOnRequest(incrementing.get());
        server->setSilentPlaces(8);
        EXPECT_EQ(server->getSilentPlaces(), 8);
        return server;
    }());
    std::atomic<bool> ends = false;
    std::thread flood([&] {
        std::vector<btkFd> kept(100);
        for (std::size_t i = 0; !ends; i = (i + 1) % kept.size()) {
            kept[i].Reset(connectFrom("127.0.0.2", "127.0.0.1", served.getPort()));
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    int tried = 0, answered = 0;
    for (int left = 200; tried < 20 && left > 0; --left) {
        const btkTimeval start = btkTimeval::Now();
        btkStreamSocket late;
        late.Adopt(btkFd(connectFrom("127.0.0.3", "127.0.0.1", served.getPort())));
        late.SetRecvLimit(patience);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        late.Send("\1", 1);
        if (btkTimeval::Now() - start > btkTimeval(0.09)) // its time of 100 ms may be over
            continue;
        char byte = 0;
        answered += late.Recv(&byte, 1) == 1;
        ++tried;
    }
    ends = true;
    flood.join();
    EXPECT_EQ(tried, 20);
    EXPECT_EQ(answered, tried);
}

TEST(netServer, HandsOverSilentClientsOnceItsLoopHasEnded)
{
    const Owned<netServer> server(makeServer());
    int calls = 0;
    const auto idle = qel::onIdle([&] { return ++calls < 3 ? netServerContinue : netServerTerminate; });
    server->setOnIdle(idle.get());
    btkStreamSocket silent;
    ASSERT_TRUE(silent.Connect(nullptr, server->getPortN(), patience));
    server->Run();

    const Owned<netSocketStream> taken(server->Accept(0));
    ASSERT_NE(taken, nullptr);
    taken->WriteByte(7);
    taken->Flush(1);
    char byte = 0;
    silent.SetRecvLimit(patience);
    EXPECT_EQ(silent.Recv(&byte, 1), 1);
    EXPECT_EQ(byte, 7);
}

TEST(netServer, ClientSendingOnlyUrgentDataDoesNotBlockOthers)
{
    ServedInThread served(makeServer());
    const int port = served.getPort();
    std::vector<btkStreamSocket> odd(3);
    for (btkStreamSocket& socket : odd)
        ASSERT_TRUE(socket.Connect(nullptr, port, patience));
    EXPECT_EQ(answerTo(port, "\1"), "\1"); // the server waits for the others by now

    const btkTimeval start = btkTimeval::Now();
    for (btkStreamSocket& socket : odd)
        ASSERT_EQ(socket.Send("oddo", 4, true), 4u);
    EXPECT_EQ(answerTo(port, "\1"), "\1");
    EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 0.9);

    // Their later bytes are received.
    char byte = 0;
    odd[1].SetRecvLimit(patience);
    odd[1].Send("\1", 1);
    EXPECT_EQ(odd[1].Recv(&byte, 1), 1);
}

TEST(netServer, ServesWhileInterrupted)
{
    const TestNameServer names;
    ServedInThread served(makeServer("interrupted"));
    const xrchandle<netAddress> address(netAddress::Create("interrupted", nullptr));
    const int before = Interrupter::interrupts;
    {
        const Interrupter interrupter;
        for (const btkTimeval end = btkTimeval::Now() + btkTimeval(ofALongRun(0.3, 60.0));
             btkTimeval::Now() < end || Interrupter::interrupts - before <= 20;) {
            address->setPortN(0);
            ASSERT_TRUE(netServer::GetVersion(address.get()) == "QEL netServer Version 0.99");
            const Owned<netSocketStream> stream(netServer::Connect(address.get(), INFINITE));
            ASSERT_NE(stream, nullptr);
            stream->WriteInt(1);
            ASSERT_EQ(stream->ReadInt(), 2);
        }
    }
}
