#pragma once

#include <functional>
#include <thread>
#include <utility>

#include <qel/netaddress.h>
#include <qel/netbaseserver.h>

#include "support/owned.h"

/// A request handler that calls a function of the test.
struct RequestHandler : netBaseServer_OnRequest_cb
{
    using Work = std::function<netServerLoopAction(netSocketStream* stream)>;

    explicit RequestHandler(Work does) : work(std::move(does)) {}
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream) override { return work(stream); }

    Work work;
};

/// The same for asynchronous requests.
struct AsyncHandler : netBaseServer_OnAsyncRequest_cb
{
    using Work = std::function<netServerLoopAction(netSocketStream* stream, evtEvent* stop)>;

    explicit AsyncHandler(Work does) : work(std::move(does)) {}
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream, evtEvent* stop) override
    {
        return work(stream, stop);
    }

    Work work;
};

/// The same for times without connections.
struct IdleHandler : netBaseServer_OnIdle_cb
{
    using Work = std::function<netServerLoopAction()>;

    explicit IdleHandler(Work does) : work(std::move(does)) {}
    netServerLoopAction Invoke(netBaseServer*) override { return work(); }

    Work work;
};

/// A server whose loop runs in a separate thread until the object is destroyed.
template<class Server>
class ServedInThread
{
public:
    explicit ServedInThread(Server* owned)
        : server(owned), idle([this] { return stops ? netServerTerminate : netServerContinue; })
    {
        server->setOnIdle(&idle);
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
    IdleHandler idle;
    std::thread loop;
};
