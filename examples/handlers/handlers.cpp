// A server whose handlers are functions, and a loop that waits for several things.

#include <iostream>
#include <memory>

#include <qel/qelloop.h>
#include <qel/qelserver.h>
#include <qel/xnetlib.h>

int main()
{
    const std::unique_ptr<netBaseServer, qelDelete> server(netBaseServer::Create(nullptr, 0, "127.0.0.1"));

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
    const std::unique_ptr<netSocketStream, qelDelete> client(netBaseServer::Connect(address.get(), 10));
    client->WriteInt(21);
    client->Flush(true);
    server->Run();

    // sample loop
    const std::unique_ptr<evtEvent, qelDelete> reply(client->InputEvent());
    qel::loop loop;
    loop.on(*reply, [&] {
        std::cout << "the server sent " << client->ReadInt() << std::endl;
        loop.stop();
    });
    loop.after(10, [&] { loop.stop(); });
    loop.run();
    // end
    return 0;
}
