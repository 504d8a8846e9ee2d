// Greets its clients, which find it under a name: greeter NAME

#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>

#include <qel/netserver.h>
#include <qel/qelexception.h>

// sample handlers
// Called in the thread of the loop, for each connection: passes it to a thread of its own, so that no client
// waits for another.
class Requests : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream*) override { return netSpawnAsyncServer; }
};

class Greeting : public netBaseServer_OnAsyncRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted, evtEvent*) override
    {
        const std::unique_ptr<netSocketStream, qelDelete> stream(accepted);
        stream->setITimeout(5); // seconds in which a client sends nothing
        stream->setTextLimit(65536);
        const xstring name = stream->ReadString(nullptr);
        stream->WriteString(xstring("Hello, ", name.CastToCString()).CastToCString());
        return netServerContinue; // a failure is reported on the standard error output, and ends this request only
    }
};
// end

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
        Requests requests;
        Greeting greeting;
        const std::unique_ptr<netServer, qelDelete> server(
            netServer::Create(argv[1], 0, "127.0.0.1")); // any free port
        if (server == nullptr) {
            std::cerr << "greeter: cannot listen\n";
            return 1;
        }
        server->setOnRequest(&requests);
        server->setOnAsyncRequest(&greeting);
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
        std::cerr << "greeter: " << qelTextOf(thrown) << '\n';
        return 1;
    }
}
