#pragma once

#include <atomic>
#include <thread>

#include <qel/netaddress.h>
#include <qel/qelserver.h>

#include "support/owned.h"

inline Owned<netBaseServer> makeBaseServer()
{
    return Owned<netBaseServer>(netBaseServer::Create(nullptr, 0));
}

inline Owned<netSocketStream> connectTo(netBaseServer& server)
{
    const xrchandle<netAddress> address(netAddress::Create(server.getPortN(), nullptr));
    return Owned<netSocketStream>(netBaseServer::Connect(address.get(), 10.0));
}

/// A server whose loop runs in a separate thread until the object is destroyed.
template<class Server>
class ServedInThread
{
public:
    explicit ServedInThread(Server* owned) : server(owned)
    {
        server->setOnIdle(qel::onIdle([this] { return stops ? netServerTerminate : netServerContinue; }));
        loop = std::thread([this] { server->Run(); });
    }
    ServedInThread(const ServedInThread&) = delete;
    ServedInThread& operator=(const ServedInThread&) = delete;
    ~ServedInThread()
    {
        stops = true;
        waitForEnd();
    }

    /// Waits until the loop has ended on its own.
    void waitForEnd()
    {
        if (loop.joinable())
            loop.join();
    }
    Server& operator*() { return *server; }
    int getPort() { return server->getPortN(); }
    /// The address of this machine and the server's port.
    xrchandle<netAddress> address() { return netAddress::Create(getPort(), nullptr); }

private:
    Owned<Server> server;
    std::atomic<bool> stops = false;
    std::thread loop;
};
