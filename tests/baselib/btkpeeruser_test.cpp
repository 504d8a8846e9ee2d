#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btkpeeruser.h>
#include <qel/base/btksocket.h>

#include "support/child.h"
#include "support/socketpair.h"
#include "support/test.h"

namespace {

const btkTimeval aWhile(10, 0);
constexpr btkUserId otherUser = 12345;

// A server's end of a connection, whose client is a process of `user` that lives as long as this object.
struct ConnectionFrom
{
    ConnectionFrom(btkUserId user, const char* listenOn, const char* host)
        : isListening(door.Listen(0, listenOn)), client([&] { return connectAndWait(user, host); }),
          isConnected(isListening && door.Wait(aWhile, 1) == 1 && door.Accept(&connection))
    {
    }

    int connectAndWait(btkUserId user, const char* host)
    {
        btkStreamSocket socket;
        char byte = 0;
        if ((user != geteuid() && setuid(user) != 0) || !socket.Connect(host, door.GetPortN(), aWhile))
            return 1;
        // Until the server closes its end.
        return socket.Recv(&byte, 1) == 0 ? 0 : 2;
    }

    btkAcceptSocket door;
    btkStreamSocket connection;
    bool isListening;
    ChildProcess client;
    bool isConnected;
};

bool hasIPv6()
{
    btkAcceptSocket door;
    return door.Listen(0, "::1");
}

} // namespace

TEST(BtkPeerUser, IsThatOfTheClientsProcess)
{
    // As another user if this process may become one.
    const btkUserId user = geteuid() == 0 ? otherUser : geteuid();
    for (const auto& [listenOn, host] :
         {std::pair("127.0.0.1", "127.0.0.1"), {nullptr, "127.0.0.1"}, {nullptr, "::1"}, {"::1", "::1"}}) {
        if (host[0] == ':' && !hasIPv6())
            continue;
        ConnectionFrom peer(user, listenOn, host);
        ASSERT_TRUE(peer.isConnected);
        EXPECT_TRUE(btkReportsPeerUsers(peer.door.GetHandle()));

        EXPECT_EQ(btkGetPeerUser(peer.connection.GetHandle()), user) << host;
        EXPECT_EQ(btkGetUserOfProcess(static_cast<unsigned>(peer.client.getId())), user);

        peer.connection.ShutdownOutput();
        EXPECT_EQ(peer.client.wait(), 0);
        EXPECT_EQ(btkGetPeerUser(peer.connection.GetHandle()), std::nullopt)
            << "closed: the kernel shows user 0";
    }
}

TEST(BtkPeerUser, IsThatOfAClientThatHasOnlyEndedItsOutput)
{
    SocketPair pair;

    pair.near.ShutdownOutput();
    char byte = 0;
    ASSERT_EQ(pair.far.Recv(&byte, 1), 0);
    EXPECT_EQ(btkGetPeerUser(pair.far.GetHandle()), geteuid());
}

TEST(BtkPeerUser, IsNotThatOfAListenerAtTheClosedClientsPort)
{
    btkAcceptSocket door;
    btkStreamSocket server;
    btkAcceptSocket other;
    ASSERT_TRUE(door.Listen(0, "127.0.0.1"));
    // Again when another process gets the port first, or has connections from it.
    for (int attempt = 0; attempt < 1000 && !other.IsOpen(); ++attempt) {
        btkStreamSocket client;
        ASSERT_TRUE(client.Connect(nullptr, door.GetPortN(), aWhile));
        ASSERT_TRUE(door.Wait(aWhile, 1) == 1 && door.Accept(&server));
        const int port = client.GetPortN();
        // Resets the connection: nothing of it is left in the kernel.
        btkResetOnClose(client.GetHandle(), true);
        client.Close();
        other.Listen(port, "127.0.0.1");
    }
    ASSERT_TRUE(other.IsOpen());
    EXPECT_EQ(btkGetPeerUser(server.GetHandle()), std::nullopt);
}

TEST(BtkPeerUser, IsUnknownWithoutAConnection)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_EQ(btkGetPeerUser(ends[0]), std::nullopt);
    EXPECT_EQ(btkGetPeerUser(-1), std::nullopt);
    EXPECT_FALSE(btkReportsPeerUsers(ends[0]));
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(btkGetUserOfProcess(0x7fffffff), std::nullopt);
}

TEST(BtkPeerUser, IsFoundByNameOrNumber)
{
    EXPECT_EQ(btkFindUser("root"), btkSuperuser);
    EXPECT_EQ(btkFindUser("4294967294"), 4294967294U);
    EXPECT_EQ(btkFindUser("0x0"), std::nullopt);
    EXPECT_EQ(btkFindUser("4294967296"), std::nullopt);
    EXPECT_EQ(btkFindUser(""), std::nullopt);
}
