// A server and its client in one program: the server greets each client until it is shut down.

#include <chrono>
#include <iostream>
#include <thread>

#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelown.h>
#include <qel/qelserver.h>

using namespace std::literals;

namespace {

// sample client
xstring greet(netAddress* address, const char* name)
{
    const auto stream = qel::own(netServer::Connect(address, 10s));
    if (stream == nullptr)
        return "nobody there";
    stream->WriteString(name);
    return stream->ReadString(nullptr); // sends what was written before it waits
}
// end

} // namespace

int main()
{
    // sample server
    const auto server = qel::own(netServer::Create(nullptr, 0)); // any free port
    server->setOnRequest(qel::onRequest([](netSocketStream& client) {
        client.WriteString("Hello, " + client.ReadString(nullptr));
        return netServerContinue; // netServerTerminate would end Run
    }));
    server->setOnError(qel::onError([](const qel::caught& failure) {
        std::cerr << failure.what() << std::endl;
        return true; // a client that fails is no reason to end
    }));
    std::thread loop([&] { server->Run(); });
    // end

    // sample run
    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));
    std::cout << greet(address.get(), "Ada") << std::endl;
    std::cout << "alive: " << +netServer::IsAlive(address.get()) << std::endl;
    netServer::Shutdown(address.get());
    loop.join();
    // end
}
