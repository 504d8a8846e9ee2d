// Counts the words of what its clients send: wordserver NAME
//
// The server registers itself as NAME with the name server of this machine and serves until a client asks it
// to stop, or SIGTERM or an interrupt does. A client says first whether it wants to be served at once, or by
// a thread of its own while the server goes on with others.

#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>
#include <sstream>

#include <qel/netserver.h>

#include "protocol.h"
#include "statistics.h"

namespace {

using Stream = std::unique_ptr<netSocketStream, qelDelete>;

/// How many seconds a client may send nothing, or take nothing.
constexpr double clientLimit = 2;

std::atomic<netServer*> running;

void stopRunning(int)
{
    running.load()->Stop();
}

/// Reads a text, and answers its counts.
void serve(netSocketStream& stream)
{
    std::stringstream text;
    char block[wordsBlock];
    for (int size = stream.ReadInt(); size > 0 && size <= wordsBlock; size = stream.ReadInt())
        text.write(block, static_cast<std::streamsize>(stream.ReadBytes(block, static_cast<unsigned>(size))));

    Statistics statistics;
    statistics.Count(text);
    statistics.Finish();
    const xrchandle<xanysequence> top = statistics.getTop();
    stream.WriteInt(statistics.getWords());
    stream.WriteInt(statistics.getDistinct());
    stream.WriteInt(top->getarraysize());
    for (int i = 0; i < top->getarraysize(); ++i) {
        Word* const word = Word::cast(top->get(i));
        stream.WriteInt(word->getCount());
        stream.WriteString(word->getText().CastToCString());
    }
}

/// Serves a client whatever it does: what goes wrong on its connection is told here and is no reason to end.
netServerLoopAction serveOrReport(netSocketStream* accepted)
{
    const Stream stream(accepted);
    try {
        serve(*stream);
    } catch (xthrowable* failure) {
        std::cerr << "wordserver: " << reasonOf(failure) << std::endl;
    }
    return netServerContinue;
}

class Requests : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream) override
    {
        int mode = serveAtOnce;
        stream->setITimeout(clientLimit);
        stream->setOTimeout(clientLimit);
        try {
            mode = stream->ReadInt();
        } catch (xthrowable* failure) { // serving reports the broken connection
            xdelete(failure);
        }
        return mode == serveByThread ? netSpawnAsyncServer : serveOrReport(stream);
    }
};

class AsyncRequests : public netBaseServer_OnAsyncRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream, evtEvent*) override
    {
        return serveOrReport(stream);
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: wordserver NAME\n";
        return 2;
    }
    try {
        Requests requests;
        AsyncRequests asyncRequests;
        const std::unique_ptr<netServer, qelDelete> server(netServer::Create(argv[1], 0));
        if (server == nullptr) {
            std::cerr << "wordserver: cannot listen\n";
            return 3;
        }
        server->setOnRequest(&requests);
        server->setOnAsyncRequest(&asyncRequests);
        server->setGracePeriod(0.5); // of requests whose client keeps them when the server is to stop
        running = server.get();
        for (const int signal : {SIGTERM, SIGINT})
            std::signal(signal, &stopRunning);
        std::cout << "serving as " << argv[1] << " on port " << server->getPortN() << std::endl;
        server->Run();
        for (const int signal : {SIGTERM, SIGINT}) // the server ends now
            std::signal(signal, SIG_IGN);
        return 0;
    } catch (xthrowable* failure) {
        std::cerr << "wordserver: " << reasonOf(failure) << '\n';
        return 3;
    }
}
