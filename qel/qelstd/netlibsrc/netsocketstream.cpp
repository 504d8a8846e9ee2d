#include "netsocketstream.h"

#include <memory>

#include "netaddress.h"
#include "qeltable.h"
#include <qel/base/btkbyteorder.h>
#include <qel/base/btksocket.h>
#include <qel/base/xsocketbuf.h>

constinit qelClass netSocketStream::rtti = {
    .name = "netlib::SocketStream",
    .parents = {QEL_PARENT(ioStream)},
};

namespace {

constexpr ioEventType outOfBandPending = static_cast<ioEventType>(2);
constexpr std::size_t valueSize = sizeof(int); // in XDR form, which is that of the network

} // namespace

netSocketStream::netSocketStream(xsocketbuf* buf, btkStreamSocket* socket)
    : ioStream(ioSerializer::getXDR(), buf, true, true), socketBuf(buf), connection(socket)
{
}

netSocketStream::~netSocketStream()
{
    Close();
}

netSocketStream* netSocketStream::Connect(netAddress* address, double timeout)
{
    const btkTimeval limit = timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout);
    const int port = ResolvePort(address);
    const xstring host = address->getHostName();
    auto socket = std::make_unique<btkStreamSocket>();
    if (!socket->Connect(host == nullptr ? nullptr : host.CastToCString(), port, limit))
        return nullptr;
    return Create(socket.release());
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
    delete socketBuf; // first: it sends what is pending
    delete connection;
    socketBuf = nullptr;
    connection = nullptr;
}

btkHandle netSocketStream::GetInheritHandle()
{
    CheckOpen();
    return connection->GetHandle();
}

unsigned char netSocketStream::WriteOutOfBand(int value)
{
    CheckOpen();
    char encoded[valueSize];
    btkPutNetwork(encoded, value);
    return socketBuf->SendUrgent(encoded);
}

int netSocketStream::ReadOutOfBand()
{
    CheckOpen();
    char encoded[valueSize];
    return socketBuf->ReceiveUrgent(encoded) == valueSize ? btkGetNetwork<int>(encoded) : xnullint;
}

ioEvent* netSocketStream::OutOfBandEvent()
{
    CheckOpen();
    return CreateEvent(socketBuf->GetUrgentEvent(), outOfBandPending);
}
