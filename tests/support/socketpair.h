#pragma once

#include <qel/base/btksocket.h>

/// Two sockets connected to each other over the loopback.
struct SocketPair
{
    SocketPair()
    {
        btkAcceptSocket door;
        if (door.Listen(0, "127.0.0.1") && near.Connect("127.0.0.1", door.GetPortN(), btkTimeval(10, 0)) &&
            door.Wait(btkTimeval(10, 0), 1) == 1)
            door.Accept(&far);
    }

    btkStreamSocket near;
    btkStreamSocket far;
};
