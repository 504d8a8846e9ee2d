// Lets a server count the words of a file: wordclient NAME FILE
// NAME is the server's name, registered with the name server of this machine. The lines are those of
// wordcount.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelown.h>

#include "protocol.h"

namespace {

void send(netSocketStream& stream, std::istream& text)
{
    char block[wordsBlock];
    while (text.read(block, sizeof block), text.gcount() > 0) {
        stream.WriteInt(static_cast<int>(text.gcount()));
        stream.WriteBytes(block, static_cast<unsigned>(text.gcount()));
    }
    stream.WriteInt(0);
}

void printAnswer(netSocketStream& stream)
{
    const int words = stream.ReadInt(); // sends what is pending first
    const int distinct = stream.ReadInt();
    std::printf("words %d distinct %d\n", words, distinct);
    for (int left = stream.ReadInt(); left > 0; --left) {
        const int count = stream.ReadInt();
        std::printf("%8d %s\n", count, stream.ReadString(nullptr).CastToCString());
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: wordclient NAME FILE\n";
        return 2;
    }
    std::ifstream file(argv[2], std::ios::binary);
    if (!file) {
        std::cerr << "wordclient: cannot read " << argv[2] << ": " << std::strerror(errno) << '\n';
        return 3;
    }
    try {
        const xrchandle<netAddress> address(netAddress::Create(argv[1], nullptr));
        const qel::owned<netSocketStream> stream(netServer::Connect(address.get(), 10.0));
        if (stream == nullptr) {
            std::cerr << "wordclient: " << argv[1] << " does not answer\n";
            return 3;
        }
        send(*stream, file);
        printAnswer(*stream);
        return 0;
    } catch (xthrowable* thrown) {
        std::cerr << "wordclient: " << reasonOf(thrown) << '\n';
        return 3;
    }
}
