// A server whose handlers are functions, and a loop that waits for several things.

#include <chrono>
#include <iostream>

#include <qel/qelcpp.h>
#include <qel/qelloop.h>
#include <qel/qelserver.h>
#include <qel/xnetlib.h>

using namespace std::literals;

int main()
{
    const auto server = qel::own(netBaseServer::Create(nullptr, 0, "127.0.0.1"));

    // sample handlers
    server->setOnRequest(qel::onRequest([](netSocketStream& client) {
        client.WriteInt(client.ReadInt() * 2);
        return netServerTerminate;
    }));
    server->setOnError(qel::onError([](const qel::caught& failure) {
        std::cerr << failure.what() << std::endl;
        return true; // the next client may do better
    }));
    // end

    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));
    const auto client = qel::own(netBaseServer::Connect(address.get(), 10s));
    client->WriteInt(21);
    client->Flush(true);
    server->Run();

    // sample loop
    const auto reply = qel::own(client->InputEvent());
    qel::loop loop;
    loop.on(*reply, [&] {
        std::cout << "the server sent " << client->ReadInt() << std::endl;
        loop.stop();
    });
    loop.after(10s, [&] { loop.stop(); });
    loop.run();
    // end
    return 0;
}
