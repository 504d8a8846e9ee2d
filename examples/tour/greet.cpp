// A server and its client in one program: the server greets each client until it is shut down.

#include <iostream>
#include <thread>

#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelcaught.h>
#include <qel/qelown.h>

namespace {

// sample server
class Greeting : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const qel::owned<netSocketStream> stream(accepted);
        try {
            const xstring name = stream->ReadString(nullptr);
            stream->WriteString(xstring("Hello, ", name.CastToCString()).CastToCString());
        } catch (xthrowable* thrown) {
            const qel::caught failure(thrown); // the client has gone: no reason to end
        }
        return netServerContinue; // netServerTerminate would end Run
    }
};
// end

// sample client
xstring greet(netAddress* address, const char* name)
{
    const qel::owned<netSocketStream> stream(netServer::Connect(address, 10.0));
    if (stream == nullptr)
        return "nobody there";
    stream->WriteString(name);
    return stream->ReadString(nullptr); // sends what was written before it waits
}
// end

} // namespace

int main()
{
    // sample run
    Greeting greeting;
    const qel::owned<netServer> server(netServer::Create(nullptr, 0)); // any free port
    server->setOnRequest(&greeting);
    std::thread loop([&] { server->Run(); });

    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));
    std::cout << greet(address.get(), "Ada") << std::endl;
    std::cout << "alive: " << +netServer::IsAlive(address.get()) << std::endl;
    netServer::Shutdown(address.get());
    loop.join();
    // end
}
