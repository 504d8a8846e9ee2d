#include <qel/xiolib.h>
#include <qel/xnetlib.h>

#include "support/descriptors.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/resident.h"
#include "support/test.h"
#include "support/testserver.h"

namespace {

// Sends back the sum of the integers before a zero; threads serve odd sizes.
netServerLoopAction sum(netSocketStream& stream)
{
    int total = 0;
    for (int value = stream.ReadInt(); value != 0; value = stream.ReadInt())
        total += value;
    stream.WriteInt(total);
    stream.Flush(1);
    return netServerContinue;
}

const auto atOnceOrSpawn = qel::onRequest([](netSocketStream& stream) {
    if (stream.ReadInt() != 0)
        return netSpawnAsyncServer;
    return sum(stream);
});

const auto byThread = qel::onAsyncRequest(&sum);

netServer* makeServer(const char* name)
{
    netServer* const server = netServer::Create(name, 0);
    server->setOnRequest(atOnceOrSpawn.get());
    server->setOnAsyncRequest(byThread.get());
    return server;
}

bool isServed(netAddress* address, int spawn, int size)
{
    const Owned<netSocketStream> stream(netServer::Connect(address, INFINITE));
    if (stream == nullptr)
        return false;
    stream->WriteInt(spawn);
    for (int i = 1; i <= size; ++i)
        stream->WriteInt(i);
    stream->WriteInt(0);
    return stream->ReadInt() == size * (size + 1) / 2;
}

} // namespace

TEST(netServerLoad, SixtyFourClientsLoseNoReply)
{
    const long before = openDescriptors();
    {
        const TestNameServer names;
        ServedInThread served(makeServer("summing"));
        const auto runClients = [](double seconds) {
            std::atomic<int> lost = 0;
            std::atomic<int> done = 0;
            std::vector<std::thread> clients;
            for (int client = 0; client < 64; ++client) {
                clients.emplace_back([&lost, &done, client, seconds] {
                    const btkTimeval end = btkTimeval::Now() + btkTimeval(seconds);
                    for (int turn = 0; btkTimeval::Now() < end; ++turn) {
                        const xrchandle<netAddress> address(netAddress::Create("summing", nullptr));
                        try {
                            lost += !isServed(address.get(), (client + turn) % 2, (client * 7 + turn) % 3000);
                        } catch (xthrowable* failure) {
                            ++lost;
                            xdelete(failure);
                        }
                        ++done;
                    }
                });
            }
            for (std::thread& client : clients)
                client.join();
            EXPECT_EQ(lost, 0) << "of " << done;
            EXPECT_GT(done, 64);
        };
        runClients(1);
        const long warm = residentKiB();
        runClients(ofALongRun(1.0, 60.0));
        if (freedMemoryIsGone) {
            EXPECT_LT(residentKiB() - warm, 4096);
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(netServerLoad, ConcurrentRequestsUseLittleMemoryAndAreJoined)
{
    const int count = ofALongRun(200, 1000);
    const DescriptorLimit room(6 * count + 100);
    if (!room)
        GTEST_SKIP() << "too few descriptors for this";
    const long before = openDescriptors();
    {
        ServedInThread served(makeServer(nullptr));
        const xrchandle<netAddress> address = served.address();
        ASSERT_TRUE(isServed(address.get(), 1, 1));
        const long idle = residentKiB();
        std::vector<Owned<netSocketStream>> clients;
        for (int i = 0; i < count; ++i) {
            clients.emplace_back(netServer::Connect(address.get(), INFINITE));
            ASSERT_NE(clients.back(), nullptr);
            clients.back()->WriteInt(1);
            clients.back()->WriteInt(i + 1);
            clients.back()->Flush(1);
        }
        ASSERT_TRUE(isServed(address.get(), 1, 10)); // all earlier ones are being served
        if (freedMemoryIsGone) {                     // both ends, and the used part of a stack
            EXPECT_LT((residentKiB() - idle) / count, 64);
        }
        for (int i = 0; i < count; ++i) {
            clients[static_cast<std::size_t>(i)]->WriteInt(0);
            EXPECT_EQ(clients[static_cast<std::size_t>(i)]->ReadInt(), i + 1);
        }
        clients.clear();
        // Completed requests are joined while the server runs.
        const btkTimeval end = btkTimeval::Now() + btkTimeval(20, 0);
        while (openDescriptors() > before + 10 && btkTimeval::Now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_LE(openDescriptors(), before + 10);
    }
    EXPECT_EQ(openDescriptors(), before);
}
