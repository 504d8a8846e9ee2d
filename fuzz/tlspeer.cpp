// Arbitrary bytes to a versioned server that takes encrypted connections: as a client's first bytes, which may begin a
// handshake; and as what a client with a good certificate sends afterwards, as frames. The server serves the next
// client.
#include <memory>
#include <string>

#include <qel/base/btkframes.h>
#include <qel/base/btktls.h>
#include <qel/netserver.h>

#include "support/certificates.h"
#include "support/environment.h"
#include "support/streampair.h"
#include "support/testserver.h"
#include "target.h"

namespace {

constexpr btkTimeval limit(5, 0);

void readAll(netSocketStream& stream)
{
    allowStreamFailure([&] {
        stream.setITimeout(5.0);
        for (;;)
            if (stream.ReadInt() == 7)
                stream.ReadOutOfBand();
    });
}

// Never freed: the server's thread uses it until the process exits.
struct Place
{
    TempDir dir{TempDir::InMemory};
    TestAuthority authority;
    std::unique_ptr<ServedInThread<netServer>> served;

    Place()
    {
        authority.fill(dir, "own", authority.issue());
        Putenv("QELSTD_TLS", dir.path("own"));
        netServer* const server = netServer::Create(nullptr, 0, "127.0.0.1");
        server->setOnRequest(qel::onRequest(&readAll));
        served = std::make_unique<ServedInThread<netServer>>(server);
        require(netServer::IsAlive(served->address().get()));
    }
};

Place& place()
{
    static Place* const made = new Place;
    return *made;
}

std::unique_ptr<btkStreamSocket> connected()
{
    auto socket = std::make_unique<btkStreamSocket>();
    require(socket->Connect("127.0.0.1", place().served->getPort(), limit));
    socket->SetRecvLimit(limit);
    socket->SetSendLimit(limit);
    return socket;
}

void drain(btkStreamSocket& socket)
{
    char rest[4096];
    while (socket.Recv(rest, sizeof rest) > 0) {
    }
}

std::unique_ptr<btkTlsSession> shaken()
{
    std::string why;
    const std::shared_ptr<btkTlsFolder> folder = btkTlsFolder::Open(place().dir.path("own"), why);
    std::unique_ptr<btkTlsSession> session =
        folder == nullptr ? nullptr : folder->Connect(connected(), {"", "127.0.0.1"}, why);
    while (session != nullptr) {
        const btkTlsSession::Step step = session->Handshake();
        if (step == btkTlsSession::Step::done)
            return session;
        if (step == btkTlsSession::Step::failed ||
            session->GetSocket().btkSocket::Wait(limit, step == btkTlsSession::Step::readable ? 1 : 2) <= 0)
            break;
    }
    std::abort();
}

void sendFrames(const std::string& bytes)
{
    const std::unique_ptr<btkTlsSession> session = shaken();
    for (std::size_t done = 0; done < bytes.size();) {
        const std::ptrdiff_t count = session->Write(bytes.data() + done, bytes.size() - done);
        if (count < 0)
            return;
        done += static_cast<std::size_t>(count);
        if (count == 0)
            session->GetSocket().btkSocket::Wait(limit, 2);
    }
    session->FinishOutput();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2 || size > 4096)
        return 0;
    std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    if (data[0] % 2 == 0) {
        if (bytes[0] == 3) // stops the server
            return 0;
        const std::unique_ptr<btkStreamSocket> socket = connected();
        socket->Send(bytes.data(), bytes.size());
        socket->ShutdownOutput();
        drain(*socket);
    } else {
        // The request's code, or what is to be one.
        std::string frames;
        if (data[0] % 4 == 1)
            btkPutDataFrame(frames, std::string_view("\0", 1));
        else if (bytes.size() > 5 && bytes[0] == 0 && bytes[5] == 3)
            return 0;
        sendFrames(frames + bytes);
    }
    require(netServer::IsAlive(place().served->address().get()));
    return 0;
}
