#include "nethandshake.h"

#include <cstring>

int netAsk(btkStreamSocket& socket, netRequestCode code)
{
    unsigned char byte = static_cast<unsigned char>(code);
    if (socket.Send(&byte, 1) != 1 || socket.RecvAll(&byte, 1) != 1)
        return -1;
    return byte;
}

bool netReadVersion(btkStreamSocket& socket, std::string& text)
{
    unsigned char size = 0;
    char bytes[255] = {};
    const bool isSized = socket.RecvAll(&size, 1) == 1;
    const std::size_t got = isSized ? socket.RecvAll(bytes, size) : 0;
    text.assign(bytes, strnlen(bytes, got));
    return isSized && got == size;
}
