#pragma once

#include <memory>

#include <qel/netsocketstream.h>

#include "support/owned.h"
#include "support/socketpair.h"
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
        SocketPair::connect(*nearEnd, *farEnd);
        nearSocket = nearEnd.get();
        farSocket = farEnd.get();
        near.reset(netSocketStream::Create(nearEnd.release()));
        far.reset(netSocketStream::Create(farEnd.release()));
    }

    btkStreamSocket* nearSocket;
    btkStreamSocket* farSocket;
    Owned<netSocketStream> near, far;
};
