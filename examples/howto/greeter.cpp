// Greets its clients, which find it under a name: greeter NAME

#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>

#include <qel/netserver.h>
#include <qel/qelcpp.h>
#include <qel/qelserver.h>

using namespace std::literals;

// sample stopping
std::atomic<netServer*> running;

void stopRunning(int)
{
    running.load()->Stop(); // may be called from any thread, and in a signal handler
}
// end

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: greeter NAME\n";
        return 2;
    }
    try {
        // sample serve
        const auto server = qel::own(netServer::Create(argv[1], 0, "127.0.0.1")); // any free port
        if (server == nullptr) {
            std::cerr << "greeter: cannot listen\n";
            return 1;
        }
        // A thread for each connection, so that no client waits for another.
        server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
        server->setOnAsyncRequest(qel::onAsyncRequest([](netSocketStream& client) {
            client.setITimeout(5s); // in which a client sends nothing
            client.setTextLimit(65536);
            client.WriteString("Hello, " + client.ReadString(nullptr));
        })); // a failure is reported on the standard error output, and ends this request only
        server->setAsyncLimit(100); // clients at once
        running = server.get();
        for (const int signal : {SIGTERM, SIGINT})
            std::signal(signal, &stopRunning);
        std::cout << "serving as " << argv[1] << std::endl;
        server->Run();
        for (const int signal : {SIGTERM, SIGINT})
            std::signal(signal, SIG_IGN); // the server is destroyed next
        // end
        return 0;
    } catch (xthrowable* thrown) {
        std::cerr << "greeter: " << qel::caught(thrown).what() << '\n';
        return 1;
    }
}
