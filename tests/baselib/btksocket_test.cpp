#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btksocket.h>

#include "support/closedport.h"
#include "support/interrupt.h"
#include "support/test.h"
#include "support/wire.h"

namespace {

const btkTimeval aWhile(10, 0);

// Receives `count` bytes at most `piece` at a time.
std::string received(btkStreamSocket& from, std::size_t count, std::size_t piece)
{
    std::string all;
    for (std::string part; all.size() < count; all += part)
        if ((part = received(from, std::min(piece, count - all.size()))).empty())
            break;
    return all;
}

void send(btkStreamSocket& to, const std::string& text, bool oob = false)
{
    ASSERT_EQ(to.Send(text.data(), text.size(), oob), text.size());
}

// The oldest urgent value, once it has arrived.
std::string urgent(btkStreamSocket& from)
{
    EXPECT_TRUE(soon([&] { return from.HasUrgent(); }));
    char value[4] = {};
    const std::ptrdiff_t count = from.Recv(value, sizeof value, true);
    return {value, static_cast<std::size_t>(count < 0 ? 0 : count)};
}

} // namespace

TEST(btkStreamSocket, ConnectsOverBothFamiliesAndByName)
{
    struct Case
    {
        const char* interface;
        const char* host;
        const char* peer;
    };
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    for (const Case& each : {Case{nullptr, "127.0.0.1", "127.0.0.1"}, Case{nullptr, "::1", "::1"},
                             Case{"::1", "localhost", "::1"}, Case{"lo", "LocalHost", "127.0.0.1"},
                             Case{nullptr, name, "127.0.0.1"}, Case{nullptr, nullptr, "127.0.0.1"}}) {
        SCOPED_TRACE(each.peer);
        btkAcceptSocket door;
        ASSERT_TRUE(door.Listen(0, each.interface));
        ASSERT_GT(door.GetPortN(), 0);
        btkStreamSocket client;
        ASSERT_TRUE(client.Connect(each.host, door.GetPortN(), aWhile));
        ASSERT_EQ(door.Wait(aWhile, 1), 1);
        btkStreamSocket server;
        ASSERT_TRUE(door.Accept(&server));

        EXPECT_EQ(client.GetPeerAddrStr(), each.peer);
        EXPECT_EQ(server.GetPeerAddrStr(), each.peer);
        EXPECT_EQ(server.GetLocalAddrStr(), each.peer);
        EXPECT_TRUE(server.IsPeerOnTheSameMachine());
        EXPECT_NE(fcntl(server.GetHandle(), F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(fcntl(client.GetHandle(), F_GETFD) & FD_CLOEXEC, 0);
        send(client, "to the server");
        send(server, "to the client");
        server.ShutdownOutput();
        EXPECT_EQ(received(server, 13), "to the server");
        EXPECT_EQ(received(client, 100), "to the client");
    }
}

TEST(btkStreamSocket, ReportsUnreachableAddresses)
{
    const ClosedPort closed;
    const int port = closed.get();
    btkStreamSocket client;
    EXPECT_FALSE(client.Connect("127.0.0.1", 65536 + port, aWhile));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(client.Connect("no-such-host.invalid", port, aWhile));
    EXPECT_FALSE(client.Connect("127.0.0.1", port, aWhile));
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_FALSE(client.IsOpen());
}

TEST(btkStreamSocket, ConnectStopsAtItsLimit)
{
    // A full backlog: a further connection is neither accepted nor refused.
    btkAcceptSocket door;
    ASSERT_TRUE(door.Listen(0, "127.0.0.1"));
    ASSERT_EQ(listen(door.GetHandle(), 0), 0);
    btkStreamSocket first;
    btkStreamSocket second;
    first.Connect("127.0.0.1", door.GetPortN(), btkTimeval(0, 100000));
    second.Connect("127.0.0.1", door.GetPortN(), btkTimeval(0, 100000));
    btkStreamSocket third;
    const btkTimeval start = btkTimeval::Now();

    EXPECT_FALSE(third.Connect("127.0.0.1", door.GetPortN(), btkTimeval(0, 200000)));

    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(btkTimeval::Now() - start, btkTimeval(0, 200000));
    EXPECT_LT(btkTimeval::Now() - start, btkTimeval(5, 0));
}

TEST(btkStreamSocket, EachEndSendsWithoutDelayAndWithKeepaliveProbes)
{
    const auto option = [](const btkStreamSocket& socket, int level, int name) {
        int value = 0;
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(socket.GetHandle(), level, name, &value, &size), 0);
        return value;
    };
    SocketPair pair; // one end has connected, the other inherits the settings of its listener
    for (const btkStreamSocket* const end : {&pair.near, &pair.far}) {
        EXPECT_EQ(option(*end, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(option(*end, SOL_SOCKET, SO_KEEPALIVE), 1);
        const int found = option(*end, IPPROTO_TCP, TCP_KEEPIDLE) +
                          option(*end, IPPROTO_TCP, TCP_KEEPINTVL) * option(*end, IPPROTO_TCP, TCP_KEEPCNT);
        EXPECT_EQ(found, 120); // seconds
    }
}

TEST(btkStreamSocket, KeepsItsLimitsWhileInterrupted)
{
    SocketPair pair;
    Interrupter interrupter;
    pair.near.SetRecvLimit(btkTimeval(0, 50000));
    pair.near.SetSendLimit(btkTimeval(0, 50000));
    const btkTimeval start = btkTimeval::Now();
    char byte = 0;

    EXPECT_EQ(pair.near.Recv(&byte, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(btkTimeval::Now() - start, btkTimeval(0, 50000));
    const std::string much(64 << 20, 'x');
    EXPECT_LT(pair.near.Send(much.data(), much.size()), much.size());
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(btkTimeval::Now() - start, btkTimeval(5, 0));
    EXPECT_EQ(pair.far.TryRecv(&byte, 1), 1);
}

TEST(btkStreamSocket, TransfersEverythingWhileInterrupted)
{
    SocketPair pair;
    const std::string sent = numbered(8 << 20);
    Interrupter interrupter;

    std::thread sender([&] { send(pair.near, sent); });
    const std::string got = received(pair.far, sent.size(), 65536);
    sender.join();

    EXPECT_EQ(got, sent);
    EXPECT_GT(Interrupter::interrupts.load(), 0);
}

TEST(btkStreamSocket, SendToAClosedPeerFailsWithoutSignal)
{
    SocketPair pair;
    pair.far.Close();
    const std::string some(1 << 20, 'x');

    EXPECT_TRUE(soon([&] { return pair.near.Send(some.data(), some.size()) < some.size(); }));
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET);
}

TEST(btkAcceptSocket, DoesNotBlockAndRejectsInvalidPorts)
{
    btkAcceptSocket door;
    EXPECT_FALSE(door.Listen(65536, nullptr));
    EXPECT_FALSE(door.Listen(-1, nullptr));
    ASSERT_TRUE(door.Listen(0, nullptr));
    btkAcceptSocket second;
    EXPECT_FALSE(second.Listen(door.GetPortN(), nullptr));
    EXPECT_EQ(errno, EADDRINUSE);
    btkStreamSocket none;

    EXPECT_FALSE(door.Accept(&none));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(door.Wait(btkTimeval(0, 1000), 1), -1);
    door.Close();
    EXPECT_EQ(door.Wait(btkTimeval(0, 1000), 1), 0);
}

// ---- urgent values

TEST(btkStreamSocketUrgent, ValuesStayOutsideTheStreamAtEveryOffset)
{
    const std::string stream = numbered(40);
    for (std::size_t before = 0; before <= 9; ++before) {
        for (std::size_t early = 0; early <= before; ++early) {
            for (const std::size_t piece : {1, 2, 3, 4, 5, 64}) {
                SCOPED_TRACE(testing::Message()
                             << before << " before, " << early << " read early, " << piece << " at a time");
                SocketPair pair;
                send(pair.near, stream.substr(0, before));
                EXPECT_EQ(received(pair.far, early, piece), stream.substr(0, early));
                send(pair.near, std::string("\xFF\0\x80U", 4), true);
                send(pair.near, stream.substr(before));

                if (piece % 2 == 0) {
                    EXPECT_EQ(urgent(pair.far), std::string("\xFF\0\x80U", 4));
                }
                EXPECT_EQ(received(pair.far, 40 - early, piece), stream.substr(early));
                if (piece % 2 != 0) {
                    EXPECT_EQ(urgent(pair.far), std::string("\xFF\0\x80U", 4));
                }
                char none[4];
                EXPECT_EQ(pair.far.Recv(none, sizeof none, true), 0);
            }
        }
    }
}

TEST(btkStreamSocketUrgent, ValueFollowsAStreamLongerThanAnyBuffer)
{
    SocketPair pair;
    const std::string stream = numbered(3 << 20);
    std::thread sender([&] {
        for (std::size_t at = 0; at < stream.size(); at += 262144) {
            send(pair.near, stream.substr(at, 262144));
            char told = 0;
            if (at % 524288 == 0 && pair.near.Recv(&told, 1) == 1)
                send(pair.near, std::string(4, told), true);
        }
        pair.near.ShutdownOutput();
    });

    std::string got;
    std::string values;
    for (char turn = '0'; turn < '6'; ++turn) {
        send(pair.far, std::string(1, turn));
        got += received(pair.far, 500000, 65536);
        values += urgent(pair.far);
    }
    got += received(pair.far, stream.size(), 65536);
    sender.join();

    EXPECT_EQ(values, "000011112222333344445555");
    EXPECT_TRUE(got == stream);
}

TEST(btkStreamSocketUrgent, ValueIsAnnouncedWhileNothingIsRead)
{
    std::mt19937 random(5);
    for (int i = 0; i < 40; ++i) {
        btkAcceptSocket door;
        btkStreamSocket one, other;
        ASSERT_TRUE(door.Listen(0, "127.0.0.1"));
        btkSetOwnRoom(door.GetHandle(), btkUrgentRoom);
        ASSERT_TRUE(one.Connect("127.0.0.1", door.GetPortN(), aWhile) && door.Wait(aWhile, 1) == 1 &&
                    door.Accept(&other));
        // Few large segments make the kernel announce windows too large for the many small ones.
        std::string sent;
        const btkHandle handle = one.GetHandle();
        while (btkCountUnsent(handle) > 0 || btkCountPeerRoom(handle) > 0) {
            const std::size_t most = random() % 16 == 0 ? 65536 : 1 + random() % 5000;
            const std::string part = numbered(std::min(most, btkCountPeerRoom(handle)));
            send(one, part);
            sent += part;
        }
        EXPECT_GT(sent.size(), 65536u);

        send(one, {"\0\0\0\x9", 4}, true);
        ASSERT_EQ(urgent(other), std::string("\0\0\0\x9", 4)) << i;
        EXPECT_TRUE(received(other, sent.size()) == sent);
    }
}

TEST(btkStreamSocketUrgent, ForeignUseOfUrgentDataIsHarmless)
{
    SocketPair pair;
    ASSERT_EQ(::send(pair.near.GetHandle(), "x", 1, MSG_OOB), 1);

    EXPECT_EQ(urgent(pair.far), "x");

    send(pair.near, "after");
    EXPECT_EQ(received(pair.far, 5), "after");
    EXPECT_EQ(pair.near.Send("abc", 3, true), 0u);
    EXPECT_EQ(errno, EINVAL);
}
