// Arbitrary bytes as a name server's answer: each request ends, with no more records than the bytes can
// contain.
#include <string>
#include <thread>
#include <vector>

#include <qel/base/nmsclient.h>

#include "target.h"

namespace {

// Accepts a client, sends it the bytes and closes the connection.
void answer(btkAcceptSocket& door, const std::string& bytes)
{
    btkStreamSocket client;
    const btkTimeval limit(5, 0);
    require(door.Wait(limit, 1) == 1 && door.Accept(&client));
    client.SetRecvLimit(limit);
    char request[nmsFrameSize];
    client.RecvAll(request, sizeof request);
    client.Send(bytes.data(), bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static btkAcceptSocket door;
    require(door.IsOpen() || door.Listen(0, "127.0.0.1"));
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::thread server([&] { answer(door, bytes); });

    nmsExchange exchange;
    const int status = exchange.Ask("127.0.0.1", door.GetPortN(), nmsRequestCode::query);
    std::vector<nmsFields> records;
    if (status == nmscDone)
        exchange.ReadRecords(records);
    server.join();
    constexpr std::size_t smallest = 2 * nmsIntSize; // a record without fields
    require(status == (size == 0 ? nmsExchange::noAnswer : data[0]) && records.size() <= size / smallest);
    return 0;
}
