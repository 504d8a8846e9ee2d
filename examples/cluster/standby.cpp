// standby NAME ANSWER: serves under NAME as soon as no other process of any machine does, and sends each client ANSWER.

#include <chrono>
#include <iostream>
#include <thread>

#include <qel/netserver.h>
#include <qel/qelcpp.h>
#include <qel/qelserver.h>

using namespace std::literals;

namespace {

/// A server of that name, once no other has it; null if it cannot listen.
qel::owned<netServer> waitForName(const char* name)
{
    for (;; std::this_thread::sleep_for(500ms)) {
        try {
            return qel::own(netServer::Create(name, 0));
        } catch (xthrowable* thrown) {
            const qel::caught taken(thrown); // or the name server cannot be reached
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: standby NAME ANSWER\n";
        return 2;
    }
    const auto server = waitForName(argv[1]);
    if (server == nullptr) {
        std::cerr << "standby: cannot listen\n";
        return 1;
    }
    server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server->setOnAsyncRequest(
        qel::onAsyncRequest([answer = argv[2]](netSocketStream& client) { client.WriteString(answer); }));
    std::cout << "serving as " << argv[1] << std::endl;
    server->Run();
}
