#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

#include <qel/base/btksocket.h>
#include <qel/netsocketstream.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

template<class T>
using Owned = std::unique_ptr<T, qelDelete>;

/// The two ends of a connection over the loopback.
struct Pair
{
    Pair()
    {
        btkAcceptSocket listener;
        EXPECT_TRUE(listener.Listen(0, "127.0.0.1"));
        btkFd dialled(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(listener.GetPortN()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(dialled.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        btkFd accepted(accept4(listener.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC));
        const int one = 1;
        for (const btkFd* const end : {&dialled, &accepted})
            setsockopt(end->Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        clientHandle = dialled.Get();
        client = Stream(std::move(dialled));
        server = Stream(std::move(accepted));
    }
    static Owned<netSocketStream> Stream(btkFd connected)
    {
        auto socket = std::make_unique<btkStreamSocket>();
        socket->Adopt(std::move(connected));
        return Owned<netSocketStream>(netSocketStream::Create(socket.release()));
    }

    btkHandle clientHandle;
    Owned<netSocketStream> client, server;
};
