// Arbitrary bytes sent to a name server, in two parts: it answers with a status, or closes the connection
// because the request stays incomplete, and continues to answer others.
#include <cerrno>
#include <memory>

#include <qel/base/nmsclient.h>

#include "support/nameserver.h"
#include "target.h"

namespace {

bool asksForTheEnd(const std::uint8_t* data, std::size_t size)
{
    return size >= nmsFrameSize && nmsGetInt(reinterpret_cast<const char*>(data)) == nmsFrameNumber &&
           data[nmsIntSize] == static_cast<std::uint8_t>(nmsRequestCode::shutdown);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::unique_ptr<TestNameServer> serving; // an input may stop it
    if (size < 1 || size > 200000)
        return 0;
    if (serving == nullptr)
        serving = std::make_unique<TestNameServer>(nmsServerOptions{.table = {.bytes = 1 << 16}});
    require(serving->isListening());

    btkStreamSocket socket;
    const btkTimeval limit(5, 0);
    require(socket.Connect("127.0.0.1", serving->getPort(), limit));
    socket.SetRecvLimit(limit);
    const std::size_t first = 1 + data[size - 1] % size;
    socket.Send(data, first);
    socket.Send(data + first, size - first);
    socket.ShutdownOutput();
    char answer[4096];
    std::ptrdiff_t count = 0;
    while ((count = socket.Recv(answer, sizeof answer)) > 0) {
    }
    require(count >= 0 || errno != ETIMEDOUT);

    if (asksForTheEnd(data, size)) {
        serving.reset();
        return 0;
    }
    nmsExchange other;
    require(other.Ask("127.0.0.1", serving->getPort(), nmsRequestCode::ping) == nmscDone);
    return 0;
}
