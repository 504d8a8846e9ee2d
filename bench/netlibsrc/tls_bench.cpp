// Encrypted connections against a program that uses OpenSSL directly, with the same certificates of both ends: a ping
// (a handshake, a byte there and back), and many bytes over one connection. Both ends are in this process.

#include <atomic>
#include <benchmark/benchmark.h>
#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <thread>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/netserver.h>
#include <qel/qelserver.h>

#include "support/certificates.h"
#include "support/environment.h"
#include "support/streampair.h"
#include "support/testserver.h"

namespace {

constexpr btkTimeval patience(10, 0);
constexpr std::size_t blockSize = 65536;
constexpr std::size_t blocks = 512;

struct Folder
{
    TempDir dir{TempDir::InMemory};
    TestAuthority authority;
    EnvSetting own{"QELSTD_TLS", dir.path("own").c_str()};
    EnvSetting local{"QELSTD_TLS_LOCAL", "1"};

    Folder() { authority.fill(dir, "own", authority.issue()); }
};

// Reads the blocks, and then replies.
void swallow(netSocketStream& stream)
{
    std::vector<char> block(blockSize);
    allowStreamFailure([&] {
        for (;;) {
            for (std::size_t i = 0; i < blocks; ++i)
                stream.ReadBytes(block.data(), blockSize);
            stream.WriteInt(1);
            stream.Flush(1);
        }
    });
}

void PingQelstd(benchmark::State& state)
{
    const Folder folder;
    ServedInThread<netServer> served(netServer::Create(nullptr, 0, "127.0.0.1"));
    const xrchandle<netAddress> address(netAddress::Create(served.getPort(), "127.0.0.1"));
    for (auto _ : state)
        if (!netServer::IsAlive(address.get()))
            state.SkipWithError("no answer");
}

void StreamQelstd(benchmark::State& state)
{
    const Folder folder;
    netServer* const server = netServer::Create(nullptr, 0, "127.0.0.1");
    server->setOnRequest(qel::onRequest(&swallow));
    ServedInThread<netServer> served(server);
    const xrchandle<netAddress> address(netAddress::Create(served.getPort(), "127.0.0.1"));
    const Owned<netSocketStream> stream(netServer::Connect(address.get(), 10.0));
    const std::vector<char> block(blockSize, 'x');
    for (auto _ : state) {
        for (std::size_t i = 0; i < blocks; ++i)
            stream->WriteBytes(block.data(), blockSize);
        if (stream->ReadInt() != 1)
            state.SkipWithError("no answer");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * blocks * blockSize));
}

// ---- OpenSSL itself

struct Context
{
    explicit Context(const TempDir& dir) : context(SSL_CTX_new(TLS_method()))
    {
        SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
        SSL_CTX_set_num_tickets(context, 0);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
        SSL_CTX_use_certificate_chain_file(context, dir.path("own/certificate.pem"));
        SSL_CTX_use_PrivateKey_file(context, dir.path("own/key.pem"), SSL_FILETYPE_PEM);
        SSL_CTX_load_verify_file(context, dir.path("own/authorities.pem"));
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { SSL_CTX_free(context); }

    SSL_CTX* context;
};

struct Connection
{
    explicit Connection(const Context& context) : ssl(SSL_new(context.context)) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { SSL_free(ssl); }
    bool Begin(bool isServer)
    {
        SSL_set_fd(ssl, socket.GetHandle());
        return (isServer ? SSL_accept(ssl) : SSL_connect(ssl)) == 1;
    }
    bool ReadAll(char* to, std::size_t size)
    {
        for (std::size_t done = 0; done < size;) {
            const int count = SSL_read(ssl, to + done, static_cast<int>(size - done));
            if (count <= 0)
                return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }
    bool Write(const char* from, std::size_t size)
    {
        return SSL_write(ssl, from, static_cast<int>(size)) > 0;
    }

    btkStreamSocket socket;
    SSL* ssl;
};

class PlainServer
{
public:
    template<class Serve>
    PlainServer(const Context& context, Serve serve)
    {
        door.Listen(0, "127.0.0.1");
        loop = std::thread([this, &context, serve] {
            while (!ends) {
                Connection one(context);
                if (door.Wait(btkTimeval(0, 10000), 1) == 1 && door.Accept(&one.socket) && one.Begin(true)) {
                    serve(one);
                    SSL_shutdown(one.ssl);
                }
            }
        });
    }
    PlainServer(const PlainServer&) = delete;
    PlainServer& operator=(const PlainServer&) = delete;
    ~PlainServer()
    {
        ends = true;
        loop.join();
    }

    btkAcceptSocket door;

private:
    std::atomic<bool> ends = false;
    std::thread loop;
};

void PingOpenSsl(benchmark::State& state)
{
    const Folder folder;
    const Context context(folder.dir);
    const PlainServer server(context, [](Connection& one) {
        char byte = 0;
        if (one.ReadAll(&byte, 1))
            one.Write(&byte, 1);
    });
    for (auto _ : state) {
        Connection one(context);
        char byte = 1;
        if (!one.socket.Connect("127.0.0.1", server.door.GetPortN(), patience) || !one.Begin(false) ||
            !one.Write(&byte, 1) || !one.ReadAll(&byte, 1))
            state.SkipWithError("no answer");
        SSL_shutdown(one.ssl);
    }
}

void StreamOpenSsl(benchmark::State& state)
{
    const Folder folder;
    const Context context(folder.dir);
    const PlainServer server(context, [](Connection& one) {
        std::vector<char> block(blockSize);
        for (;;) {
            for (std::size_t i = 0; i < blocks; ++i)
                if (!one.ReadAll(block.data(), blockSize))
                    return;
            one.Write("\0\0\0\1", 4);
        }
    });
    Connection one(context);
    if (!one.socket.Connect("127.0.0.1", server.door.GetPortN(), patience) || !one.Begin(false))
        state.SkipWithError("no connection");
    const std::vector<char> block(blockSize, 'x');
    for (auto _ : state) {
        for (std::size_t i = 0; i < blocks; ++i)
            one.Write(block.data(), blockSize);
        char reply[4];
        if (!one.ReadAll(reply, sizeof reply))
            state.SkipWithError("no answer");
    }
    SSL_shutdown(one.ssl);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * blocks * blockSize));
}

BENCHMARK(PingQelstd)->Name("tls/ping/qelstd")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(PingOpenSsl)->Name("tls/ping/openssl")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(StreamQelstd)->Name("tls/32 MiB/qelstd")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(StreamOpenSsl)->Name("tls/32 MiB/openssl")->MeasureProcessCPUTime()->UseRealTime();

} // namespace
