// Servers and the streams of their connections: a ping against a plain loop and a TCP server of another
// library; integers and blocks over one connection against xdrrec and against plain calls. Both ends are in
// this process, and the time is that of the client, which waits for the other end. Servers with many open
// connections are in a child.

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <csignal>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <rpc/rpc.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <qel/base/btkpipe.h>
#include <qel/base/btksocket.h>
#include <qel/netserver.h>

#include "curve.h"
#include "support/testserver.h"

namespace {

// ---- a ping: connect, a byte there, a byte back, close

btkFd Connected(int port)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<in_port_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    btkFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(client.Get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
        client = btkFd();
    return client;
}

/// Sends a byte. Whether one comes back.
bool IsAnswered(const btkFd& client, char byte)
{
    return send(client.Get(), &byte, 1, MSG_NOSIGNAL) == 1 && recv(client.Get(), &byte, 1, 0) == 1;
}

void Ping(benchmark::State& state, int port)
{
    for (auto _ : state)
        if (!IsAnswered(Connected(port), 1))
            state.SkipWithError("no answer");
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

// ---- by the number of open connections

/// Returns how many there may be.
rlim_t AllowDescriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

/// A server in a child process: each side has descriptors for many connections.
class ServedInChild
{
public:
    /// `serve` writes its port to the handle, and does not return.
    explicit ServedInChild(void (*serve)(btkHandle tell))
    {
        AllowDescriptors();
        btkInputPipe told;
        btkOutputPipe tells;
        if (!btkAnonymousPipe::Create(tells, told) || (id = fork()) < 0)
            std::abort();
        if (id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve(tells.Get());
            _exit(1);
        }
        if (read(told.Get(), &port, sizeof port) != sizeof port)
            std::abort();
    }
    ServedInChild(const ServedInChild&) = delete;
    ServedInChild& operator=(const ServedInChild&) = delete;
    ~ServedInChild()
    {
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
    }

    int getPort() const { return port; }
    /// In bytes.
    double getMemory() const
    {
        return 1024.0 * static_cast<double>(residentKiB("VmRSS:", std::to_string(id)));
    }
    /// Opens connections with the handshake of a versioned server.
    std::vector<btkFd> Open(std::int64_t count) const
    {
        std::vector<btkFd> clients;
        for (std::int64_t i = 0; i < count; ++i) {
            clients.push_back(Connected(port));
            if (!IsAnswered(clients.back(), 0))
                std::abort();
        }
        return clients;
    }

private:
    pid_t id;
    int port = 0;
};

/// A thread for each connection, as handlers are written.
void ServeOurs(btkHandle tell)
{
    const Owned<netServer> server(netServer::Create(nullptr, 0));
    server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server->setOnAsyncRequest(qel::onAsyncRequest([](netSocketStream& client) {
        try {
            for (char byte = 0;;) {
                client.ReadBytes(&byte, 1);
                client.WriteBytes(&byte, 1);
                client.Flush(1);
            }
        } catch (xthrowable* end) {
            xdelete(end);
        }
    }));
    const int port = server->getPortN();
    btkWrite(tell, reinterpret_cast<const char*>(&port), sizeof port);
    server->Run();
}

void ServeEpoll(btkHandle tell)
{
    btkAcceptSocket door;
    door.Listen(0, nullptr);
    const btkFd all(epoll_create1(EPOLL_CLOEXEC));
    const auto add = [&](int handle) {
        epoll_event wanted = {EPOLLIN, {}};
        wanted.data.fd = handle;
        epoll_ctl(all.Get(), EPOLL_CTL_ADD, handle, &wanted);
    };
    add(door.GetHandle());
    const int port = door.GetPortN();
    btkWrite(tell, reinterpret_cast<const char*>(&port), sizeof port);
    for (;;) {
        epoll_event ready[64];
        const int count = epoll_wait(all.Get(), ready, 64, -1);
        for (int i = 0; i < count; ++i) {
            const int handle = ready[i].data.fd;
            char byte = 0;
            if (handle == door.GetHandle())
                add(accept4(handle, nullptr, nullptr, SOCK_CLOEXEC));
            else if (recv(handle, &byte, 1, 0) == 1)
                send(handle, &byte, 1, MSG_NOSIGNAL);
            else
                close(handle);
        }
    }
}

/// The same plan as ours.
void ServeThreads(btkHandle tell)
{
    btkAcceptSocket door;
    door.Listen(0, nullptr);
    const int port = door.GetPortN();
    btkWrite(tell, reinterpret_cast<const char*>(&port), sizeof port);
    while (door.Wait(btkTimeval::Forever(), 1) == 1)
        std::thread([client = btkFd(accept4(door.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC))] {
            for (char byte = 0; recv(client.Get(), &byte, 1, 0) == 1;)
                send(client.Get(), &byte, 1, MSG_NOSIGNAL);
        }).detach();
}

/// A request on one of the connections after the other.
template<auto serve>
void AskOpen(benchmark::State& state)
{
    const std::int64_t n = state.range(0);
    const ServedInChild served(serve);
    const std::vector<btkFd> clients = served.Open(n);
    std::int64_t i = 0;
    for (auto _ : state)
        if (!IsAnswered(clients[static_cast<std::size_t>(curvePlace(i++, n))], 1))
            state.SkipWithError("no answer");
}

/// A connection with one request, while the others are open.
template<auto serve>
void ConnectBeside(benchmark::State& state)
{
    const ServedInChild served(serve);
    const std::vector<btkFd> clients = served.Open(state.range(0));
    for (auto _ : state)
        if (!IsAnswered(served.Open(1).front(), 1))
            state.SkipWithError("no answer");
}

template<auto serve>
void OpenMemory(benchmark::State& state)
{
    for (auto _ : state) {
        const ServedInChild served(serve);
        const auto first = served.Open(1); // with what it needs once
        const double before = served.getMemory();
        const auto all = served.Open(state.range(0));
        state.counters["bytes"] = served.getMemory() - before;
    }
}

template<auto serve>
void addCurves(const char* who)
{
    // A request in a thread has a pipe beside its connection.
    const int last = static_cast<int>(std::min<rlim_t>(AllowDescriptors() / 3000 * 1000, 10'000));
    addCurve("curves of one/request on an open connection", who, AskOpen<serve>, 1, last)->UseRealTime();
    addCurve("curves of one/connection beside open ones", who, ConnectBeside<serve>, 1, last)->UseRealTime();
    addCurve("curves of memory/open connections", who, OpenMemory<serve>, 100, last)->Iterations(1);
}

[[maybe_unused]] const bool added = [] {
    addCurves<ServeOurs>("qelstd");
    addCurves<ServeEpoll>("epoll");
    addCurves<ServeThreads>("a plain thread each");
    return true;
}();

} // namespace
