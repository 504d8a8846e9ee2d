// A server that greets each client: hello [PORT]

#include <cstdlib>
#include <iostream>

#include <qel/qelcpp.h>
#include <qel/qelserver.h>
#include <qel/qelstd.h>

// sample server
int main(int argc, char** argv)
{
    const auto server =
        qel::own(netBaseServer::Create(nullptr, argc > 1 ? std::atoi(argv[1]) : 0, "127.0.0.1"));
    server->setOnRequest(qel::onRequest([](netSocketStream& client) {
        client.setSerializer(ioSerializer::getAscii()); // lines of text
        client.WriteString("Hello, " + client.ReadString("\n") + "!\n");
    })); // the server closes the connection
    server->setOnError(
        qel::onError([](const qel::caught&) { return true; })); // a client has left early: go on
    std::cout << "port " << server->getPortN() << std::endl;
    server->Run();
}
// end
