#pragma once

#include <memory>

#include <qel/base/btksocket.h>
#include <qel/netsocketstream.h>

#include "support/owned.h"
#include "support/thrown.h"

/// Runs `work`, whose stream may fail.
template<class Work>
void allowStreamFailure(Work work)
{
    describeThrown<ioXStream>(work, [](ioXStream*) { return true; });
}

/// Two streams connected to each other over the loopback. The streams own the sockets.
struct StreamPair
{
    StreamPair()
    {
        auto nearEnd = std::make_unique<btkStreamSocket>();
        auto farEnd = std::make_unique<btkStreamSocket>();
        btkAcceptSocket door;
        if (door.Listen(0, "127.0.0.1") &&
            nearEnd->Connect("127.0.0.1", door.GetPortN(), btkTimeval(10, 0)) &&
            door.Wait(btkTimeval(10, 0), 1) == 1)
            door.Accept(farEnd.get());
        nearSocket = nearEnd.get();
        farSocket = farEnd.get();
        near.reset(netSocketStream::Create(nearEnd.release()));
        far.reset(netSocketStream::Create(farEnd.release()));
    }

    btkStreamSocket* nearSocket;
    btkStreamSocket* farSocket;
    Owned<netSocketStream> near, far;
};
