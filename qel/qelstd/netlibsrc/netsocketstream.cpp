#include "netsocketstream.h"

#include <memory>
#include <optional>
#include <string>

#include <qel/base/btkbyteorder.h>
#include <qel/base/btkcarrier.h>
#include <qel/base/btksocket.h>
#include <qel/base/xsocketbuf.h>

#include "qeltable.h"

constinit qelClass netSocketStream::rtti = {
    .name = "netlib::SocketStream",
    .parents = {QEL_PARENT(ioStream)},
};

namespace {

constexpr ioEventType outOfBandPending = static_cast<ioEventType>(2);
constexpr std::size_t usualTextLimit = 64 << 20;
constexpr std::size_t valueSize = sizeof(int); // in XDR form, which is network byte order

} // namespace

netSocketStream::netSocketStream(xsocketbuf* buf, btkStreamSocket* socket)
    : ioStream(ioSerializer::getXDR(), buf, true, true), socketBuf(buf), connection(socket)
{
    SetTextLimit(usualTextLimit);
}

netSocketStream::~netSocketStream()
{
    Release();
}

netSocketStream* netSocketStream::Create(btkStreamSocket* socket)
{
    std::unique_ptr<btkStreamSocket> owned(socket);
    auto buf = std::make_unique<xsocketbuf>(socket);
    auto* const stream = new (pDefMemMgr) netSocketStream(buf.get(), socket);
    buf.release();
    owned.release();
    return stream;
}

void netSocketStream::OnClose()
{
    delete socketBuf; // first: it sends pending data
    delete connection;
    socketBuf = nullptr;
    connection = nullptr;
}

btkHandle netSocketStream::GetInheritHandle()
{
    CheckOpen();
    // A child would read and write beside the encryption.
    return connection->IsEncrypted() ? -1 : GetSettledHandle();
}

xstring netSocketStream::getPeerAddress()
{
    CheckOpen();
    return connection->GetPeerAddrStr().c_str();
}

unsigned char netSocketStream::isEncrypted()
{
    CheckOpen();
    return connection->IsEncrypted();
}

xstring netSocketStream::getPeerCertificate()
{
    CheckOpen();
    std::string names;
    if (const btkCarrier* const carrier = connection->GetCarrier())
        for (const std::string& name : carrier->peerNames)
            names.append(names.empty() ? "" : " ").append(name);
    return names.c_str();
}

long netSocketStream::getPeerUser()
{
    CheckOpen();
    const std::optional<btkUserId> user = connection->GetPeerUser();
    return user ? static_cast<long>(*user) : -1;
}

void netSocketStream::setUrgentBudget(unsigned int bytes)
{
    CheckOpen();
    connection->SetUrgentBudget(bytes);
}

unsigned char netSocketStream::WriteOutOfBand(int value)
{
    CheckOpen();
    char encoded[valueSize];
    btkPutNetwork(encoded, value);
    return socketBuf->SendUrgent(encoded);
}

void netSocketStream::setUrgentSpacing(double seconds)
{
    CheckOpen();
    connection->SetUrgentSpacing(btkTimeval(seconds));
}

int netSocketStream::ReadOutOfBand()
{
    CheckOpen();
    char encoded[valueSize];
    return socketBuf->ReceiveUrgent(encoded) == valueSize ? btkGetNetwork<int>(encoded) : xnullint;
}

void netSocketStream::ThrowTimeout()
{
    ThrowState(stateTimeout);
}

ioEvent* netSocketStream::OutOfBandEvent()
{
    CheckOpen();
    return CreateEvent(socketBuf->GetUrgentEvent(), outOfBandPending);
}
