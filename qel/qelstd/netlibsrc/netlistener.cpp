// A server's port, and the connections whose first byte has not arrived.
#include <algorithm>
#include <cerrno>
#include <new>

#include "netexception.h"
#include "netserverloop_p.h"

namespace {

constexpr netError socketFailed = static_cast<netError>(4);
constexpr btkTimeval longestRest(0, 100000);

std::unique_ptr<btkEvent> eventOver(btkBaseEvent* made)
{
    std::unique_ptr<btkBaseEvent> base(made);
    auto event = std::make_unique<btkEvent>(base.get());
    static_cast<void>(base.release());
    return event;
}

} // namespace

netBaseServer::Loop::Loop(netBaseServer& of, std::unique_ptr<btkAcceptSocket> socket)
    : server(of), listening(std::move(socket)),
      connectionWaits(eventOver(new btkSelectEvent(listening->GetHandle(), 0))),
      stopAsked(Event_Create(false)), stopWaits(eventOver(new btkEVENTEvent(stopAsked.Get()))),
      stopSign(std::make_shared<btkStopSign>(stopAsked.Get()))
{
}

netBaseServer::Loop::~Loop()
{
    stopSign->Leave();
}

void netBaseServer::Loop::StopListening()
{
    connectionWaits.reset();
    listening.reset();
    silent.Clear();
}

std::unique_ptr<btkStreamSocket> netBaseServer::Loop::WaitForRequest(double timeout, bool isByteWanted)
{
    if (!isByteWanted) {
        if (const std::unique_ptr<Silent> oldest = silent.Take([](const Silent&) { return true; }))
            return std::move(oldest->socket);
    }
    BeginStatistics();
    btkTimeval now = btkTimeval::Now();
    const btkTimeval end = now + (timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout));
    do {
        const bool rests = now < restEnd;
        btkTimeval wake = rests ? std::min(end, restEnd) : end;
        if (!silent.IsEmpty())
            wake = std::min(wake, silent[0].since + server.silentPatience);
        if (statistics != nullptr) {
            statistics->PublishIfDue(now, silent.GetCount());
            wake = std::min(wake, statistics->GetDue());
        }
        btkEvent::WaitForAny(silent.GetCount() + 2, wake - now, [&](std::size_t i) {
            return i > 1   ? silent[i - 2].input.get()
                   : i > 0 ? stopWaits.get()
                   : rests ? nullptr
                           : connectionWaits.get();
        });
        if (stopWaits->WasSignaled())
            return nullptr;
        if (std::unique_ptr<btkStreamSocket> spoken = TakeSpoken())
            return spoken;
        now = btkTimeval::Now();
        const std::size_t before = silent.GetCount();
        silent.DropUntil(now - server.silentPatience);
        Note(netCount::silentExpired, before - silent.GetCount());
        if (rests || !connectionWaits->WasSignaled()) {
            DropTooMany(now);
            continue;
        }
        std::unique_ptr<btkStreamSocket> taken = TakeConnection(now);
        if (taken == nullptr || !isByteWanted)
            return taken;
        // A wait costs more with more silent connections, but then also finds more new ones.
        for (std::size_t more = silent.GetCount() / 16; taken != nullptr; --more) {
            DropTooMany(now);
            AddSilent(std::move(taken), now);
            if (more == 0)
                break;
            taken = TakeConnection(now);
        }
    } while (now < end);
    return nullptr;
}

// The newest connection stays: its first byte may have arrived already.
void netBaseServer::Loop::DropTooMany(btkTimeval now)
{
    if (silent.IsOverfull() && silent.TakeLeaving(now) != nullptr)
        Note(netCount::silentDisplaced);
}

void netBaseServer::Loop::AddSilent(std::unique_ptr<btkStreamSocket> socket, btkTimeval now)
{
    auto one = std::make_unique<Silent>();
    one->address = socket->GetPeerAddrStr();
    one->since = now;
    one->input = eventOver(socket->GetInputEvent());
    one->socket = std::move(socket);
    silent.Add(std::move(one));
}

// The next connection; null when accepting it failed. Without a free descriptor or memory, the port is not
// polled for a while: it stays ready, and polling it at once would keep this thread from sleeping.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeConnection(btkTimeval now)
{
    std::unique_ptr<btkStreamSocket> socket(new (std::nothrow) btkStreamSocket);
    if (socket != nullptr && listening->Accept(socket.get())) {
        Note(netCount::connections);
        return socket;
    }
    using Failure = btkAcceptSocket::Failure;
    Failure failure = socket == nullptr ? Failure::noResources : btkAcceptSocket::FailureOf(errno);
    if (socket != nullptr && failure == Failure::noResources && silent.TakeLeaving(now) != nullptr) {
        Note(netCount::silentDisplaced);
        if (listening->Accept(socket.get())) {
            Note(netCount::connections);
            return socket;
        }
        failure = btkAcceptSocket::FailureOf(errno);
    }
    if (failure == Failure::unusable)
        netXException::Throw(socketFailed, "Socket failed");
    if (failure == Failure::noResources)
        restEnd = now + (server.timeSlice == INFINITE ? longestRest
                                                      : std::min(longestRest, btkTimeval(server.timeSlice)));
    return nullptr;
}

// The oldest connection whose first byte, or end, the last wait has found.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeSpoken()
{
    const std::unique_ptr<Silent> spoken =
        silent.Take([](const Silent& one) { return one.input->WasSignaled(); });
    return spoken != nullptr ? std::move(spoken->socket) : nullptr;
}

bool netBaseServer::IsLoopbackOnly()
{
    return loop->GetSocket().IsOnLoopback();
}

void netBaseServer::SetSilentPlaces(int most)
{
    loop->silent.SetPlaces(static_cast<std::size_t>(std::max(most, 1)));
}

int netBaseServer::GetSilentPlaces() const
{
    return static_cast<int>(loop->silent.GetPlaces());
}

netSocketStream* netBaseServer::Accept(double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = loop->WaitForRequest(timeout, false);
    if (socket != nullptr)
        return netSocketStream::Create(socket.release());
    loop->TakeStop();
    return nullptr;
}

netEvent* netBaseServer::AcceptEvent()
{
    return new (pDefMemMgr)
        netEvent(new (std::nothrow) btkSelectEvent(loop->GetSocket().GetHandle(), 0), this);
}
