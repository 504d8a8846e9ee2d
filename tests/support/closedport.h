#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <qel/base/btkfd.h>

/// A port of this machine at which nobody listens. The kernel gives it to no other program and to no connection during
/// the object's lifetime; only a server that is to listen at just this port can.
class ClosedPort
{
public:
    ClosedPort() : held(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        sockaddr_in own = {};
        socklen_t size = sizeof own;
        own.sin_family = AF_INET;
        auto* const address = reinterpret_cast<sockaddr*>(&own);
        EXPECT_EQ(setsockopt(held.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
        EXPECT_EQ(bind(held.Get(), address, size), 0);
        EXPECT_EQ(getsockname(held.Get(), address, &size), 0);
        number = ntohs(own.sin_port);
    }

    int get() const { return number; }

private:
    btkFd held;
    int number = 0;
};
