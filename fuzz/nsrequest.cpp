// Arbitrary bytes sent to a name server, in two parts: it answers with a status, or closes the connection
// because the request does not become whole, and goes on answering others.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <thread>

#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>

namespace {

// A server on a thread of its own, which an input may stop.
class Serving
{
public:
    Serving() : server(Options()), listens(server.Listen()), port(server.GetPort()), loop([this] { Run(); })
    {
    }
    ~Serving()
    {
        server.Stop();
        loop.join();
    }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    bool Listens() const { return listens; }
    int GetPort() const { return port; }

private:
    static nmsServerOptions Options()
    {
        nmsServerOptions options;
        options.port = 0;
        options.table.bytes = 1 << 16;
        return options;
    }
    void Run()
    {
        if (listens)
            server.Run();
    }

    nmsServer server;
    bool listens;
    int port;
    std::thread loop;
};

bool AsksForTheEnd(const std::uint8_t* data, std::size_t size)
{
    return size >= nmsFrameSize && nmsGetInt(reinterpret_cast<const char*>(data)) == nmsFrameNumber &&
           data[nmsIntSize] == static_cast<std::uint8_t>(nmsRequestCode::shutdown);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::unique_ptr<Serving> serving;
    if (size < 1 || size > 200000)
        return 0;
    if (serving == nullptr)
        serving = std::make_unique<Serving>();
    if (!serving->Listens())
        std::abort();

    btkStreamSocket socket;
    const btkTimeval limit(5, 0);
    if (!socket.Connect("127.0.0.1", serving->GetPort(), limit))
        std::abort();
    socket.SetRecvLimit(limit);
    const std::size_t first = 1 + data[size - 1] % size;
    socket.Send(data, first);
    socket.Send(data + first, size - first);
    socket.ShutdownOutput();
    char answer[4096];
    std::ptrdiff_t count = 0;
    while ((count = socket.Recv(answer, sizeof answer)) > 0) {
    }
    if (count < 0 && errno == ETIMEDOUT)
        std::abort();

    if (AsksForTheEnd(data, size)) {
        serving.reset();
        return 0;
    }
    nmsExchange other;
    if (other.Ask("127.0.0.1", serving->GetPort(), nmsRequestCode::ping) != nmscDone)
        std::abort();
    return 0;
}
