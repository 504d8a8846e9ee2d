// The bytes exchanged by a versioned server and its clients, and an urgent integer that overtakes a stream.

#include <cstdio>
#include <string>
#include <thread>

#include <qel/base/btksocket.h>
#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelown.h>

namespace {

void print(const char* direction, const std::string& bytes)
{
    std::printf("  %s", direction);
    for (const char c : bytes)
        std::printf(" %02x", static_cast<unsigned char>(c));
    std::printf("\n");
}

/// Sends `bytes` on a new connection, and prints the bytes received until the server closes it.
void exchange(const char* what, int port, const std::string& bytes)
{
    std::printf("%s\n", what);
    btkStreamSocket socket;
    socket.SetRecvLimit(btkTimeval(5, 0));
    if (!socket.Connect(nullptr, port, btkTimeval(5, 0)) ||
        socket.Send(bytes.data(), bytes.size()) != bytes.size())
        return;
    print("client:", bytes);
    std::string answer(64, '\0');
    answer.resize(socket.RecvAll(answer.data(), answer.size()));
    print("server:", answer);
}

/// Answers an int with its double, and sends an urgent integer before that.
class Doubling : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const qel::owned<netSocketStream> stream(accepted);
        const int number = stream->ReadInt();
        if (number == 7)
            stream->WriteOutOfBand(-2);
        stream->WriteInt(2 * number);
        return netServerContinue;
    }
};

} // namespace

int main()
{
    Doubling doubling;
    const qel::owned<netServer> server(netServer::Create(nullptr, 0));
    server->setOnRequest(&doubling);
    std::thread loop([&] { server->Run(); });

    const int port = server->getPortN();
    exchange("ping", port, {1});
    exchange("version", port, {2});
    exchange("request: the int 258, answered with its double", port, {0, 0, 0, 1, 2});
    exchange("no such code", port, {9});

    // sample urgent
    const xrchandle<netAddress> address(netAddress::Create(port, nullptr));
    const qel::owned<netSocketStream> stream(netServer::Connect(address.get(), 5.0));
    const qel::owned<ioEvent> urgent(stream->OutOfBandEvent());
    stream->WriteInt(7);
    stream->Flush(true);
    urgent->Wait(5.0);
    const int overtaken = stream->ReadOutOfBand(); // has come first; the stream is as if it had not
    std::printf("urgent: %d, ordinary: %d\n", overtaken, stream->ReadInt());
    // end

    exchange("shut down", port, {3});
    loop.join();
}
