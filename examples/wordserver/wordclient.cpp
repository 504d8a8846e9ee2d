// Lets a server count the words of a file: wordclient [-t] NAME FILE
//
// NAME is the server's, as the name server of this machine knows it. With -t a thread of the server's serves.
// The lines are those of wordcount.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include <qel/netaddress.h>
#include <qel/netserver.h>

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
    const bool byThread = argc > 1 && std::strcmp(argv[1], "-t") == 0;
    const int first = byThread ? 2 : 1;
    if (argc != first + 2) {
        std::cerr << "usage: wordclient [-t] NAME FILE\n";
        return 2;
    }
    std::ifstream file(argv[first + 1], std::ios::binary);
    if (!file) {
        std::cerr << "wordclient: cannot read " << argv[first + 1] << ": " << std::strerror(errno) << '\n';
        return 3;
    }
    try {
        const xrchandle<netAddress> address(netAddress::Create(argv[first], nullptr));
        const std::unique_ptr<netSocketStream, qelDelete> stream(netServer::Connect(address.get(), 10.0));
        if (stream == nullptr) {
            std::cerr << "wordclient: " << argv[first] << " does not answer\n";
            return 3;
        }
        stream->WriteInt(byThread ? serveByThread : serveAtOnce);
        send(*stream, file);
        printAnswer(*stream);
        return 0;
    } catch (xthrowable* failure) {
        std::cerr << "wordclient: " << reasonOf(failure) << '\n';
        return 3;
    }
}
