#include "xsocketbuf.h"

#include <cerrno>
#include <cstring>

#include <qel/base/btksocket.h>

namespace {

// An event of a buffer's socket. Once the buffer is destroyed it is signaled, so that no wait hangs.
class SocketEvent : public btkBaseEvent
{
protected:
    SocketEvent(std::shared_ptr<btkStreamSocket*> shared, btkHandle watched, btkReadiness awaited)
        : btkBaseEvent(watched, awaited, true), socket(std::move(shared))
    {
    }
    // As OnAsk and OnPolled, with the socket.
    virtual State OnAskSocket(btkStreamSocket& asked) = 0;
    virtual bool OnSocketPolled(btkStreamSocket& asked, btkReadiness ready) = 0;

private:
    State OnAsk() final
    {
        if (*socket != nullptr)
            return OnAskSocket(**socket);
        GetWatch().handle = -1;
        return On;
    }
    bool OnPolled(btkReadiness ready) final { return *socket == nullptr || OnSocketPolled(**socket, ready); }

    std::shared_ptr<btkStreamSocket*> socket;
};

// Includes the values that the socket has buffered: the kernel reports only those not read yet.
class UrgentEvent final : public SocketEvent
{
public:
    UrgentEvent(std::shared_ptr<btkStreamSocket*> shared, btkHandle watched)
        : SocketEvent(std::move(shared), watched, btkUrgent)
    {
    }

private:
    State OnAskSocket(btkStreamSocket& asked) override
    {
        const bool isOn = asked.HasUrgent() || asked.IsLost();
        GetWatch().handle = asked.GetUrgentHandle();
        GetWatch().awaited = asked.GetAwaitedUrgent();
        return isOn ? On : Ask;
    }
    // A failed connection is ready, too, and stays ready.
    bool OnSocketPolled(btkStreamSocket& asked, btkReadiness ready) override
    {
        return asked.HasUrgent() || asked.IsLost(ready);
    }
};

// Of an encrypted connection: there is room only as far as the peer grants it.
class OutputEvent final : public SocketEvent
{
public:
    OutputEvent(std::shared_ptr<btkStreamSocket*> shared, btkHandle watched)
        : SocketEvent(std::move(shared), watched, btkWritable)
    {
    }

private:
    State OnAskSocket(btkStreamSocket& asked) override
    {
        GetWatch().awaited = asked.GetAwaitedOutput();
        return Ask;
    }
    bool OnSocketPolled(btkStreamSocket& asked, btkReadiness ready) override
    {
        return asked.MayWrite() && (ready & ~btkReadable) != 0;
    }
};

} // namespace

xsocketbuf::xsocketbuf(btkStreamSocket* connected) : xinputbuf(connected->GetHandle()), socket(connected)
{
    // A wait that would sleep sends pending output first.
    SetAsksInput();
}

xsocketbuf::~xsocketbuf()
{
    SendPending();
    if (link != nullptr)
        *link = nullptr;
}

bool xsocketbuf::UseKernelSocket()
{
    return SendPending() && socket->UseKernelSocket();
}

const std::shared_ptr<btkStreamSocket*>& xsocketbuf::GetLink()
{
    if (link == nullptr)
        link = std::make_shared<btkStreamSocket*>(socket);
    return link;
}

// ---- urgent values

bool xsocketbuf::SendUrgent(const void* value)
{
    return SendPending() && socket->Send(value, 4, true) == 4;
}

std::size_t xsocketbuf::ReceiveUrgent(void* value)
{
    const std::ptrdiff_t count = socket->Recv(value, 4, true);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

btkBaseEvent* xsocketbuf::GetUrgentEvent()
{
    return new UrgentEvent(GetLink(), GetHandle());
}

// ---- input

bool xsocketbuf::SetInputLimit(btkTimeval limit)
{
    socket->SetRecvLimit(limit);
    return true;
}

std::ptrdiff_t xsocketbuf::ReadSome(char* to, std::size_t size)
{
    const std::ptrdiff_t count = Receive(to, size);
    if (btkTraffic* const traffic = socket->GetTraffic(); traffic != nullptr && count > 0)
        traffic->received.fetch_add(static_cast<std::size_t>(count), std::memory_order_relaxed);
    return count;
}

std::ptrdiff_t xsocketbuf::Receive(char* to, std::size_t size)
{
    const bool isPending = Pending() > 0;
    SetLimitPassed(false);
    if (isPending) {
        const std::ptrdiff_t count = socket->TryRecv(to, size);
        if (count >= 0 || errno != EAGAIN)
            return count;
        SendPending();
        if (IsLimitPassed())
            return -1;
        // Another failure is reported by the next read: the connection is lost.
    }
    const std::ptrdiff_t count = isPending ? socket->AwaitAndRecv(to, size) : socket->Recv(to, size);
    SetLimitPassed(count < 0 && socket->IsLimitPassed());
    return count;
}

std::size_t xsocketbuf::CountPending()
{
    return socket->CountReadable();
}

bool xsocketbuf::IsPending()
{
    return socket->IsReadable();
}

bool xsocketbuf::OnTryUnderflow()
{
    // A pending urgent value also makes it ready, but is no reason to read, which would block.
    return socket->IsReadable() && xinputbuf::OnTryUnderflow();
}

btkBaseEvent::State xsocketbuf::OnAskInput()
{
    const btkBaseEvent::State state = xinputbuf::OnAskInput();
    if (state == btkBaseEvent::On || socket->HoldsReadable())
        return btkBaseEvent::On;
    SendPending();
    SetAwaitedInput(socket->GetAwaitedInput());
    return state;
}

bool xsocketbuf::OnInputPolled(btkReadiness ready)
{
    return socket->IsReadableAfter(ready);
}

// ---- output

bool xsocketbuf::SetOutputLimit(btkTimeval limit)
{
    socket->SetSendLimit(limit);
    return true;
}

// Once output has been lost no more is sent: its bytes would arrive at the wrong position.
std::size_t xsocketbuf::Send(const char* from, std::size_t size)
{
    if (isBroken)
        return 0;
    const std::size_t sent = socket->Send(from, size);
    if (btkTraffic* const traffic = socket->GetTraffic())
        traffic->sent.fetch_add(sent, std::memory_order_relaxed);
    isBroken = sent < size;
    SetLimitPassed(isBroken && socket->IsLimitPassed());
    return sent;
}

bool xsocketbuf::SendPending()
{
    const std::size_t count = Pending();
    if (count > 0) {
        Send(pbase(), count);
        setp(pbase(), epptr());
    }
    return !isBroken;
}

std::streamsize xsocketbuf::xsputn(const char* from, std::streamsize count)
{
    if (output == nullptr) {
        output = std::make_unique_for_overwrite<char[]>(outputSize);
        setp(output.get(), output.get() + outputSize);
    }
    const std::size_t size = count < 0 ? 0 : static_cast<std::size_t>(count);
    if (size > static_cast<std::size_t>(epptr() - pptr()) && !SendPending())
        return 0;
    if (size >= outputSize)
        return static_cast<std::streamsize>(Send(from, size));
    std::memcpy(pptr(), from, size);
    pbump(static_cast<int>(size));
    return static_cast<std::streamsize>(size);
}

int xsocketbuf::sync()
{
    return SendPending() ? 0 : -1;
}

std::streambuf* xsocketbuf::OnGetTryOBuf()
{
    bool broken = false;
    const std::size_t room = socket->CountWritable(broken);
    const std::size_t buffered = output == nullptr ? outputSize : outputSize - Pending();
    tryArea.SetRoom(broken || isBroken ? 0 : room > 0 ? room : buffered, broken || isBroken);
    return &tryArea;
}

btkBaseEvent* xsocketbuf::OnGetOutputEvent()
{
    return socket->IsEncrypted() ? new OutputEvent(GetLink(), GetHandle()) : MakeOutputEvent(GetHandle());
}
