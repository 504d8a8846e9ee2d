// Servers and the streams of their connections: a ping against a plain loop and a TCP server of another
// library; integers and blocks over one connection against xdrrec and against plain calls. Both ends are in
// this process, and the time is that of the client, which waits for the other end.

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/netserver.h>

#include "support/testserver.h"

namespace {

// ---- a ping: connect, a byte there, a byte back, close

void Ping(benchmark::State& state, int port)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<in_port_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (auto _ : state) {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        char byte = 1;
        if (connect(client, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
            send(client, &byte, 1, 0) != 1 || recv(client, &byte, 1, 0) != 1 || byte != 1)
            state.SkipWithError("no answer");
        close(client);
    }
}

void PingQelstd(benchmark::State& state)
{
    ServedInThread served(netServer::Create(nullptr, 0));
    Ping(state, served.getPort());
}

void PingPlain(benchmark::State& state)
{
    btkAcceptSocket door;
    door.Listen(0, nullptr);
    std::atomic<bool> ends = false;
    std::thread loop([&] {
        while (!ends) {
            pollfd waiting = {door.GetHandle(), POLLIN, 0};
            if (poll(&waiting, 1, 10) != 1)
                continue;
            const int accepted = accept4(door.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC);
            char byte = 0;
            if (recv(accepted, &byte, 1, 0) == 1)
                send(accepted, &byte, 1, MSG_NOSIGNAL);
            close(accepted);
        }
    });
    Ping(state, door.GetPortN());
    ends = true;
    loop.join();
}

class PocoEcho : public Poco::Net::TCPServerConnection
{
public:
    using TCPServerConnection::TCPServerConnection;
    void run() override
    {
        char byte = 0;
        if (socket().receiveBytes(&byte, 1) == 1)
            socket().sendBytes(&byte, 1);
    }
};

void PingPoco(benchmark::State& state)
{
    const Poco::Net::ServerSocket door(0);
    Poco::Net::TCPServer server(new Poco::Net::TCPServerConnectionFactoryImpl<PocoEcho>, door);
    server.start();
    Ping(state, door.address().port());
    server.stop();
}

BENCHMARK(PingQelstd)->Name("netlibsrc/ping/qelstd")->UseRealTime();
BENCHMARK(PingPlain)->Name("netlibsrc/ping/poll_accept")->UseRealTime();
BENCHMARK(PingPoco)->Name("netlibsrc/ping/poco")->UseRealTime();

// ---- data over one connection; the other end sends a byte once it has received all of it

struct Ends
{
    Ends()
    {
        btkAcceptSocket door;
        near = std::make_unique<btkStreamSocket>();
        far = std::make_unique<btkStreamSocket>();
        if (door.Listen(0, "127.0.0.1") && near->Connect(nullptr, door.GetPortN(), btkTimeval(10, 0)))
            door.Accept(far.get());
        const int on = 1;
        for (const btkStreamSocket* end : {near.get(), far.get()})
            setsockopt(end->GetHandle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    std::unique_ptr<btkStreamSocket> near;
    std::unique_ptr<btkStreamSocket> far;
};

constexpr int intCount = 100000;

void IntsQelstd(benchmark::State& state)
{
    Ends ends;
    const Owned<netSocketStream> near(netSocketStream::Create(ends.near.release()));
    const Owned<netSocketStream> far(netSocketStream::Create(ends.far.release()));
    std::thread receiving([&] {
        for (int first = far->ReadInt(); first >= 0; first = far->ReadInt()) {
            int sum = first;
            for (int i = 1; i < intCount; ++i)
                sum += far->ReadInt();
            far->WriteInt(sum);
            far->Flush(1);
        }
    });
    for (auto _ : state) {
        for (int i = 0; i < intCount; ++i)
            near->WriteInt(i & 1);
        if (near->ReadInt() != intCount / 2)
            state.SkipWithError("a wrong sum");
    }
    near->WriteInt(-1);
    near->Flush(1);
    receiving.join();
}

int ReadSocket(void* end, void* to, int size)
{
    const auto got = recv(*static_cast<int*>(end), to, static_cast<std::size_t>(size), 0);
    return got > 0 ? static_cast<int>(got) : -1;
}

int WriteSocket(void* end, void* from, int size)
{
    return static_cast<int>(
        send(*static_cast<int*>(end), from, static_cast<std::size_t>(size), MSG_NOSIGNAL));
}

void IntsXdrrec(benchmark::State& state)
{
    Ends ends;
    int nearHandle = ends.near->GetHandle();
    int farHandle = ends.far->GetHandle();
    XDR near;
    XDR far;
    xdrrec_create(&near, 0, 0, &nearHandle, &ReadSocket, &WriteSocket);
    xdrrec_create(&far, 0, 0, &farHandle, &ReadSocket, &WriteSocket);
    std::thread receiving([&] {
        for (;;) {
            far.x_op = XDR_DECODE;
            xdrrec_skiprecord(&far);
            int sum = 0;
            if (!xdr_int(&far, &sum) || sum < 0)
                return;
            for (int i = 1; i < intCount; ++i) {
                int value = 0;
                xdr_int(&far, &value);
                sum += value;
            }
            far.x_op = XDR_ENCODE;
            xdr_int(&far, &sum);
            xdrrec_endofrecord(&far, 1);
        }
    });
    for (auto _ : state) {
        near.x_op = XDR_ENCODE;
        for (int i = 0; i < intCount; ++i) {
            int value = i & 1;
            xdr_int(&near, &value);
        }
        xdrrec_endofrecord(&near, 1);
        near.x_op = XDR_DECODE;
        xdrrec_skiprecord(&near);
        int sum = 0;
        if (!xdr_int(&near, &sum) || sum != intCount / 2)
            state.SkipWithError("a wrong sum");
    }
    near.x_op = XDR_ENCODE;
    int end = -1;
    xdr_int(&near, &end);
    xdrrec_endofrecord(&near, 1);
    receiving.join();
    xdr_destroy(&near);
    xdr_destroy(&far);
}

BENCHMARK(IntsQelstd)->Name("netlibsrc/ints/qelstd")->UseRealTime();
BENCHMARK(IntsXdrrec)->Name("netlibsrc/ints/xdrrec")->UseRealTime();

constexpr std::size_t blockSize = 65536;
constexpr int blockCount = 256;

void BlocksQelstd(benchmark::State& state)
{
    Ends ends;
    const Owned<netSocketStream> near(netSocketStream::Create(ends.near.release()));
    const Owned<netSocketStream> far(netSocketStream::Create(ends.far.release()));
    std::thread receiving([&] {
        std::vector<char> block(blockSize);
        try {
            for (;;) {
                for (int i = 0; i < blockCount; ++i)
                    far->ReadBytes(block.data(), blockSize);
                far->WriteByte(1);
                far->Flush(1);
            }
        } catch (xthrowable* end) {
            xdelete(end);
        }
    });
    const std::vector<char> block(blockSize, 'x');
    for (auto _ : state) {
        for (int i = 0; i < blockCount; ++i)
            near->WriteBytes(block.data(), blockSize);
        if (near->ReadByte() != 1)
            state.SkipWithError("no answer");
    }
    near->Close();
    receiving.join();
}

void BlocksPlain(benchmark::State& state)
{
    Ends ends;
    std::thread receiving([&] {
        std::vector<char> block(blockSize);
        const char done = 1;
        for (;;) {
            for (int i = 0; i < blockCount; ++i)
                if (recv(ends.far->GetHandle(), block.data(), blockSize, MSG_WAITALL) !=
                    static_cast<ssize_t>(blockSize))
                    return;
            send(ends.far->GetHandle(), &done, 1, MSG_NOSIGNAL);
        }
    });
    const std::vector<char> block(blockSize, 'x');
    for (auto _ : state) {
        for (int i = 0; i < blockCount; ++i)
            send(ends.near->GetHandle(), block.data(), blockSize, MSG_NOSIGNAL);
        char done = 0;
        if (recv(ends.near->GetHandle(), &done, 1, 0) != 1)
            state.SkipWithError("no answer");
    }
    ends.near->Close();
    receiving.join();
}

BENCHMARK(BlocksQelstd)->Name("netlibsrc/blocks_64k/qelstd")->UseRealTime();
BENCHMARK(BlocksPlain)->Name("netlibsrc/blocks_64k/plain_calls")->UseRealTime();

} // namespace
