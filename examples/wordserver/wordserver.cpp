// Counts the words of texts that its clients send: wordserver NAME
// The server registers itself as NAME with the name server of this machine and serves until a client, SIGTERM
// or an interrupt stops it. A separate thread serves each client, with limits, so that no client waits for
// a client that is silent or slow, or that does not read.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <qel/netserver.h>
#include <qel/qelown.h>
#include <qel/qelserver.h>

#include "protocol.h"
#include "statistics.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Seconds for which a client may send nothing, or take nothing.
constexpr double silenceLimit = 2;
/// Time limit and maximum size in bytes of a client's whole text.
constexpr std::chrono::seconds textLimit(10);
constexpr int mostText = 4 << 20;
/// Maximum number of clients served at once; one more is closed.
constexpr int mostClients = 256;

std::atomic<netServer*> running;

void stopRunning(int)
{
    running.load()->Stop();
}

/// Reads `size` bytes as they arrive.
void readBlock(netSocketStream& stream, int size, std::ostream& to, Clock::time_point end)
{
    char block[wordsBlock];
    while (size > 0) {
        const unsigned there = std::clamp(stream.PeekNBytes(), 1U, static_cast<unsigned>(size));
        const unsigned count = stream.ReadBytes(block, there);
        if (count == 0 || Clock::now() > end)
            throw std::runtime_error("the text ends in the middle, or takes too long");
        to.write(block, static_cast<std::streamsize>(count));
        size -= static_cast<int>(count);
    }
}

/// Reads a text, and sends its counts.
void serve(netSocketStream& stream)
{
    stream.setITimeout(silenceLimit);
    stream.setOTimeout(silenceLimit);
    const Clock::time_point end = Clock::now() + textLimit;
    std::stringstream text;
    int total = 0;
    for (int size = stream.ReadInt(); size != 0; size = stream.ReadInt()) {
        if (size < 0 || size > wordsBlock || size > mostText - total)
            throw std::runtime_error("no block of a text, or too much text");
        readBlock(stream, size, text, end);
        total += size;
    }

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
        stream.WriteString(word->getText());
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: wordserver NAME\n";
        return 2;
    }
    try {
        const auto server = qel::own(netServer::Create(argv[1], 0));
        if (server == nullptr) {
            std::cerr << "wordserver: cannot listen\n";
            return 3;
        }
        server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
        server->setOnAsyncRequest(qel::onAsyncRequest(&serve)); // reports failures with the client's address
        server->setAsyncLimit(mostClients);
        server->setGracePeriod(0.5); // for requests still running when the server stops
        running = server.get();
        for (const int signal : {SIGTERM, SIGINT})
            std::signal(signal, &stopRunning);
        std::cout << "serving as " << argv[1] << " on port " << server->getPortN() << std::endl;
        server->Run();
        for (const int signal : {SIGTERM, SIGINT}) // the server is destroyed next
            std::signal(signal, SIG_IGN);
        return 0;
    } catch (xthrowable* thrown) {
        std::cerr << "wordserver: " << reasonOf(thrown) << '\n';
        return 3;
    }
}
