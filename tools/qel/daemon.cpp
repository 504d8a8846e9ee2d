#include "daemon.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include <qel/base/btkservice.h>

#include "commands.h"

btkAcceptSocket TakePassedSocket(std::string& interface, int& port)
{
    btkAcceptSocket socket;
    if (btkFd passed = btkTakePassedSocket()) {
        socket.Adopt(std::move(passed));
        interface = socket.GetLocalAddrStr();
        port = socket.GetPortN();
    }
    return socket;
}

void ReportServing(const std::string& interface, int port)
{
    const std::string line = "serving on " + interface + ", port " + std::to_string(port);
    if (!IsQuiet())
        std::cout << line << std::endl;
    btkReportReady(line);
}

void FailToListen(const std::string& interface, int port)
{
    const bool isTaken = errno == EADDRINUSE;
    Fail(Exit::peer, interface + ", port " + std::to_string(port),
         std::string("cannot listen: ") + std::strerror(errno) + (isTaken ? "; port 0 is a free one" : ""));
}

void RequireInterface(const std::string& interface)
{
    btkAcceptSocket socket;
    if (!socket.Listen(0, interface == "*" ? nullptr : interface.c_str()))
        Fail(Exit::peer, interface, std::string("cannot listen: ") + std::strerror(errno));
}
