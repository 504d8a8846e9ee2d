#pragma once

#include <string>
#include <thread>

#include <qel/base/nmsserver.h>

#include "support/environment.h"

/// A name server on a free port of the loopback, served by a separate thread. During its lifetime it is the
/// name server of the clients of this process.
class TestNameServer
{
public:
    explicit TestNameServer(nmsServerOptions options = {})
        : server(prepared(std::move(options))), listens(server.Listen()), port(server.GetPort()),
          setting("VRXNMSPORT", std::to_string(port).c_str()), loop([this] { server.Run(); })
    {
    }
    TestNameServer(const TestNameServer&) = delete;
    TestNameServer& operator=(const TestNameServer&) = delete;
    ~TestNameServer()
    {
        server.Stop();
        waitForEnd();
    }

    bool isListening() const { return listens; }
    int getPort() const { return port; }
    /// Waits until the server has stopped on its own.
    void waitForEnd()
    {
        if (loop.joinable())
            loop.join();
    }

private:
    static nmsServerOptions prepared(nmsServerOptions options)
    {
        options.port = 0;
        return options;
    }

    nmsServer server;
    bool listens;
    int port;
    EnvSetting setting;
    std::thread loop;
};
