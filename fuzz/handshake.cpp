// Arbitrary bytes sent by a client to a versioned server, which answers according to the first byte and
// serves the next client; and sent as a server's answer, after which each call of a client ends as
// documented.
#include <cstring>
#include <string>
#include <thread>

#include <qel/base/btksocket.h>
#include <qel/netexception.h>
#include <qel/netserver.h>

#include "support/streampair.h"
#include "support/testserver.h"
#include "target.h"

namespace {

constexpr btkTimeval limit(5, 0);
const std::string version("\1\x1bQEL netServer Version 0.99\0", 29);

void readAll(netSocketStream& stream)
{
    allowStreamFailure([&] {
        for (;;)
            stream.ReadInt();
    });
}

std::string answerTo(int port, const std::string& bytes)
{
    btkStreamSocket socket;
    require(socket.Connect(nullptr, port, limit));
    socket.SetRecvLimit(limit);
    socket.Send(bytes.data(), bytes.size());
    socket.ShutdownOutput();
    std::string answer(100, '\0');
    answer.resize(socket.RecvAll(answer.data(), answer.size()));
    return answer;
}

void askServer(const std::string& bytes)
{
    static ServedInThread served([] {
        netServer* const server = netServer::Create(nullptr, 0);
        server->setOnRequest(qel::onRequest(&readAll));
        return server;
    }());
    if (bytes.empty() || bytes[0] == 3) // stops the server
        return;
    const std::string answer = answerTo(served.getPort(), bytes);
    const std::string whole = bytes[0] == 0 || bytes[0] == 1 ? "\1" : bytes[0] == 2 ? version : "";
    // A server that closes with bytes unread resets the connection, which may overtake what it sent.
    require(answer.size() <= whole.size() && whole.compare(0, answer.size(), answer) == 0);
    require(answerTo(served.getPort(), "\2") == version);
}

// The bytes are the answer; `expected` is the result that the call must return for them.
template<typename Call>
void askAs(const std::string& bytes, Call call)
{
    static btkAcceptSocket door;
    require(door.IsOpen() || door.Listen(0, "127.0.0.1"));
    std::thread server([&] {
        btkStreamSocket client;
        require(door.Wait(limit, 1) == 1 && door.Accept(&client));
        client.SetRecvLimit(limit);
        char code = 0;
        require(client.RecvAll(&code, 1) == 1);
        client.Send(bytes.data(), bytes.size());
    });
    const xrchandle<netAddress> address(netAddress::Create(door.GetPortN(), nullptr));
    const bool isAdmitted = !bytes.empty() && bytes[0] == 1;
    bool isRefused = false;
    try {
        call(address.get(), isAdmitted);
    } catch (xthrowable* thrown) {
        isRefused = netXException::softcast(thrown) != nullptr &&
                    netXException::softcast(thrown)->getError() == netConnectionRefused;
        xdelete(thrown);
        require(isRefused && !isAdmitted);
    }
    server.join();
}

void answerClients(const std::string& bytes)
{
    askAs(bytes, [&](netAddress* address, bool isAdmitted) {
        require(static_cast<bool>(netServer::IsAlive(address)) == (bytes.empty() || isAdmitted));
    });
    askAs(bytes, [&](netAddress* address, bool isAdmitted) {
        const Owned<netSocketStream> stream(netServer::Connect(address, 5.0));
        require((stream != nullptr) == isAdmitted);
    });
    askAs(bytes, [&](netAddress* address, bool) {
        const xstring text = netServer::GetVersion(address);
        const std::size_t most = bytes.size() > 2 ? bytes.size() - 2 : 0;
        require(std::strlen(text.CastToCString()) <= most);
    });
    askAs(bytes, [&](netAddress* address, bool) { netServer::Shutdown(address); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0 || size > 4096)
        return 0;
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    if (data[0] % 2 == 0)
        askServer(bytes);
    else
        answerClients(bytes);
    return 0;
}
