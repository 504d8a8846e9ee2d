// Lets the server NAME of this machine, or of HOST, greet somebody: greetclient NAME SOMEBODY [HOST]

#include <chrono>
#include <iostream>

#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelcpp.h>

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::cerr << "usage: greetclient NAME SOMEBODY [HOST]\n";
        return 2;
    }
    const char* const host = argc == 4 ? argv[3] : nullptr; // null: this machine
    try {
        // sample client
        const xrchandle<netAddress> address(netAddress::Create(argv[1], host));
        const auto stream = qel::own(netServer::Connect(address.get(), std::chrono::seconds(5)));
        if (stream == nullptr) {
            std::cerr << "greetclient: " << argv[1] << " does not respond\n";
            return 1;
        }
        stream->WriteString(argv[2]);
        std::cout << stream->ReadString(nullptr) << std::endl; // sends what was written before it waits
        // end
        return 0;
    } catch (xthrowable* thrown) {
        std::cerr << "greetclient: " << qel::caught(thrown).what() << '\n';
        return 1;
    }
}
