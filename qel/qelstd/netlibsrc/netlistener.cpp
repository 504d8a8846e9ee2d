// A server's port, and the connections whose first byte has not arrived.
#include <algorithm>
#include <cerrno>
#include <new>

#include <qel/base/btktrace.h>

#include "netexception.h"
#include "netserverloop_p.h"
#include "nettls.h"

namespace {

constexpr btkTimeval longestRest(0, 100000);
constexpr btkTimeval reportPause(60, 0);
// Continued in one step of the loop.
constexpr int mostHandshakes = 4;

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
        const auto isPlain = [](const Silent& one) { return one.socket != nullptr; };
        if (const std::unique_ptr<Silent> oldest = silent.Take(isPlain))
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
        netXException::Throw(netListeningFailed, "Socket failed");
    if (failure == Failure::noResources)
        restEnd = now + (server.timeSlice == INFINITE ? longestRest
                                                      : std::min(longestRest, btkTimeval(server.timeSlice)));
    return nullptr;
}

// The oldest connection whose first byte, or end, the last wait has found. Continues some handshakes on the way: many
// at once must not delay the others for long.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeSpoken()
{
    int left = mostHandshakes;
    const std::unique_ptr<Silent> spoken = silent.Take([&](Silent& one) {
        if (!one.input->WasSignaled() || one.isRefused)
            return false;
        if (one.session == nullptr && !BeginsEncrypted(one))
            return true;
        one.isRefused = left-- > 0 && !ContinueHandshake(one);
        return false;
    });
    silent.DropIf([](const Silent& one) { return one.isRefused; });
    return spoken != nullptr ? std::move(spoken->socket) : nullptr;
}

// ---- encrypted connections

void netBaseServer::Loop::FindTlsFolder()
{
    xstring folder;
    isTlsFound = takesEncrypted && netIsTlsConfigured();
    if (!isTlsFound)
        return;
    try {
        folder = netGetTlsFolder();
    } catch (xthrowable* failure) {
        const qel::caught caught(failure);
    }
    tlsFolder = folder.isNull() ? "" : folder.CastToCString();
}

bool netBaseServer::Loop::BeginsEncrypted(const Silent& one) const
{
    return isTlsFound && !one.socket->IsEncrypted() && one.socket->BeginsWith(btkTlsFirstByte);
}

// False when the connection is lost.
bool netBaseServer::Loop::ContinueHandshake(Silent& one)
try {
    using Step = btkTlsSession::Step;
    if (one.session == nullptr && !BeginSession(one))
        return false;
    const Step step = one.session->Handshake();
    if (step == Step::failed) {
        Refuse(one.address, one.session->GetFailure());
        return false;
    }
    if (step == Step::done) {
        one.socket = btkCarry(std::move(one.session));
        if (one.socket == nullptr)
            return false;
        one.input = eventOver(one.socket->GetInputEvent());
    } else {
        const int type = step == Step::readable ? 0 : 1;
        one.input = eventOver(new btkSelectEvent(one.session->GetSocket().GetHandle(), type));
    }
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

bool netBaseServer::Loop::BeginSession(Silent& one)
{
    std::string why = "the registry cannot be read";
    const std::shared_ptr<btkTlsFolder> folder =
        tlsFolder.empty() ? nullptr : btkTlsFolder::Open(tlsFolder, why);
    if (folder != nullptr)
        one.session = folder->Accept(std::move(one.socket), why);
    if (one.session != nullptr)
        return true;
    Refuse(one.address, why);
    if (const btkTimeval now = btkTimeval::Now(); nextTlsReport <= now) {
        nextTlsReport = now + reportPause;
        netReport(server, {}, "no encrypted connection is possible: " + why);
    }
    return false;
}

void netBaseServer::Loop::Refuse(const std::string& peer, const std::string& why)
{
    Note(netCount::refusedByTls);
    if (btkTraces(btkTraceArea::net, btkLevel::warning))
        btkTrace(btkTraceArea::net, btkLevel::warning, "no encrypted connection with %s: %s", peer.c_str(),
                 why.c_str());
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
