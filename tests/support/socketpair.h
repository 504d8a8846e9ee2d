#pragma once

#include <qel/base/btksocket.h>

/// Two sockets connected to each other over the loopback; closed ones when that fails.
struct SocketPair
{
    SocketPair() { connect(near, far); }

    static bool connect(btkStreamSocket& one, btkStreamSocket& other)
    {
        btkAcceptSocket door;
        return door.Listen(0, "127.0.0.1") && one.Connect("127.0.0.1", door.GetPortN(), btkTimeval(10, 0)) &&
               door.Wait(btkTimeval(10, 0), 1) == 1 && door.Accept(&other);
    }

    btkStreamSocket near;
    btkStreamSocket far;
};
