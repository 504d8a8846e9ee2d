#include "netbaseserver.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "netaddress.h"
#include "netasyncrequest_p.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "qelcaught_p.h"
#include "qeltable.h"
#include <qel/base/netsilentset.h>
#include <qel/qelexception.h>

QEL_LABELS(netServerLoopAction, "netlib::ServerLoopAction", netServerContinue, netServerTerminate,
           netSpawnAsyncServer);

constinit qelClass netBaseServer_OnRequest_cb::rtti = {.name = "netlib::BaseServer_OnRequest_cb"};
constinit qelClass netBaseServer_OnAsyncRequest_cb::rtti = {.name = "netlib::BaseServer_OnAsyncRequest_cb"};
constinit qelClass netBaseServer_OnIdle_cb::rtti = {.name = "netlib::BaseServer_OnIdle_cb"};

constinit qelClass netEvent::rtti = {
    .name = "netlib::Event",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Server)},
};

constinit qelClass netBaseServer::rtti = {
    .name = "netlib::BaseServer",
    .attrs = {QEL_ATTR(PortN), QEL_ATTR(ServerName, qelOptional), QEL_ATTR(TimeSlice)},
};

namespace {

constexpr netError socketFailed = static_cast<netError>(4);
constexpr std::size_t silentPlacesAtFirst = 256;
constexpr btkTimeval longestRest(0, 100000);

std::unique_ptr<btkEvent> EventOver(btkBaseEvent* made)
{
    std::unique_ptr<btkBaseEvent> base(made);
    auto event = std::make_unique<btkEvent>(base.get());
    static_cast<void>(base.release());
    return event;
}

// The address or name of the interface that servers listen on when none is given; none: all.
struct ListenInterface
{
    std::mutex mutex;
    std::optional<std::string> name;

    std::optional<std::string> Get()
    {
        const std::lock_guard lock(mutex);
        return name;
    }
};

ListenInterface& DefaultInterface()
{
    static ListenInterface* const setting = new ListenInterface; // for servers that outlive every static
    return *setting;
}

// ---- reports

// A line on the standard error output about a request of `peer`.
void Report(netBaseServer& server, const std::string& peer, const std::string& text)
{
    std::string line = server.getQelTypeName().CastToCString();
    const xstring name = server.getServerName();
    if (!(name == nullptr))
        line.append(" \"").append(name.CastToCString()).append("\"");
    line += ", port " + std::to_string(server.getPortN());
    if (!peer.empty())
        line += ", client " + peer;
    line += ": " + text;
    std::replace_if(
        line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
    std::cerr << line + '\n' << std::flush;
}

// Calls `handler()`, and reports what it throws before that goes on.
template<class Handler>
netServerLoopAction Reported(netBaseServer& server, const std::string& peer, Handler handler)
try {
    return handler();
} catch (xthrowable* failure) {
    Report(server, peer, qelIsObject(failure) ? qelTextOf(failure).CastToCString() : "no exception");
    throw;
} catch (const std::exception& failure) {
    Report(server, peer, failure.what());
    throw;
} catch (...) {
    qelPassCancellation();
    Report(server, peer, "unknown exception");
    throw;
}

} // namespace

class [[gnu::visibility("hidden")]] netBaseServer::Loop
{
public:
    Loop(netBaseServer & of, std::unique_ptr<btkAcceptSocket> socket)
        : server(of), listening(std::move(socket)),
          connectionWaits(EventOver(new btkSelectEvent(listening->GetHandle(), 0))),
          stopAsked(Event_Create(false)), stopWaits(EventOver(new btkEVENTEvent(stopAsked.Get()))),
          stopSign(std::make_shared<btkStopSign>(stopAsked.Get()))
    {
    }
    ~Loop()
    {
        stopSign->Leave();
    }

    const btkAcceptSocket& GetSocket() const
    {
        return *listening;
    }
    /// Whether there was a descriptor for all that it needs.
    bool IsWhole() const
    {
        return static_cast<bool>(stopAsked);
    }
    void Stop();
    /// Whether Stop was called since the last time.
    bool TakeStop();
    /// The next connection to be served; null when `timeout` seconds have passed or it is time to stop.
    /// `isByteWanted`: its first byte is waited for.
    std::unique_ptr<btkStreamSocket> WaitForRequest(double timeout, bool isByteWanted);
    netServerLoopAction Serve(std::unique_ptr<btkStreamSocket> socket);
    /// Collects the asynchronous requests that have ended.
    netServerLoopAction CheckAsyncRequests();
    /// Closes the port and the connections that wait.
    void StopListening();
    /// Asks all asynchronous requests to stop, and waits until they have ended.
    void StopRequests();
    /// An asynchronous request has ended; called in its thread.
    void NoteEnd()
    {
        ++endedBodies;
    }

    /// A connection whose first byte has not come.
    struct Silent
    {
        std::unique_ptr<btkStreamSocket> socket;
        std::string address;
        btkTimeval since;
        std::unique_ptr<btkEvent> input;
    };
    netSilentSet<Silent> silent{silentPlacesAtFirst};

private:
    std::unique_ptr<btkStreamSocket> TakeConnection(btkTimeval now);
    std::unique_ptr<btkStreamSocket> TakeSpoken();
    void AddSilent(std::unique_ptr<btkStreamSocket> socket, btkTimeval now);
    void DropTooMany(btkTimeval now);
    void SpawnAsyncRequest(netSocketStream * stream);
    bool StartAsyncRequest(netSocketStream * stream);

    netBaseServer& server;

    std::unique_ptr<btkAcceptSocket> listening;
    std::unique_ptr<btkEvent> connectionWaits; // on while `listening` has a connection
    btkTimeval restEnd;                        // until then `listening` is left alone

    btkFd stopAsked; // an event
    std::unique_ptr<btkEvent> stopWaits;
    std::atomic<bool> isStopAsked = false;
    std::shared_ptr<btkStopSign> stopSign; // of streams that the loop's thread serves

    std::list<std::unique_ptr<netAsyncRequest>> requests;
    std::atomic<int> endedBodies = 0; // of `requests`; written by their threads
};

// ---- creation and end

netBaseServer::netBaseServer(btkAcceptSocket* socket, xstring name)
    : portN(socket->GetPortN()), serverName(name), isRegistered(!(name == nullptr)),
      loop(MakeLoop(this, socket))
{
}

netBaseServer::Loop* netBaseServer::MakeLoop(netBaseServer* server, btkAcceptSocket* listening)
{
    std::unique_ptr<btkAcceptSocket> owned(listening);
    return new Loop(*server, std::move(owned));
}

netBaseServer* netBaseServer::Create(const char* name, int port)
{
    return Create(name, port, nullptr);
}

netBaseServer* netBaseServer::Create(const char* name, int port, const char* interface)
{
    return CreateAs<netBaseServer>(name, port, interface);
}

void netBaseServer::setListenInterface(const char* interface)
{
    ListenInterface& setting = DefaultInterface();
    const std::lock_guard lock(setting.mutex);
    setting.name = interface != nullptr ? std::optional<std::string>(interface) : std::nullopt;
}

netBaseServer* netBaseServer::Make(const char* name, int port, const char* interface, Maker make)
{
    struct Offer
    {
        ~Offer() { delete socket; }
        btkAcceptSocket* socket;
    };
    Offer offer{new btkAcceptSocket};
    const std::optional<std::string> setting = DefaultInterface().Get();
    const char* const wanted = interface != nullptr ? interface : setting ? setting->c_str() : nullptr;
    if (!offer.socket->Listen(port == xnullint ? 0 : port, wanted))
        return nullptr;
    std::unique_ptr<netBaseServer, qelDelete> server(make(offer.socket));
    if (!server->loop->IsWhole())
        return nullptr;
    server->Register(name);
    return server.release();
}

void netBaseServer::Register(const char* name)
{
    if (name == nullptr || name == xnullstr)
        return;
    // The name server keeps processes apart, and this the threads of this one: between asking and registering
    // nobody else takes the name.
    static std::mutex registering;
    const std::lock_guard<std::mutex> lock(registering);
    nmsOwnedProxy proxy = netNameServer(nullptr, netAnswerEnd());
    if (proxy == nullptr)
        netXException::Throw(netNameServiceProblem, "Can't register: Name Server not found");
    const xstring wanted(name);
    if (IsRegisteredWithNMS(proxy.get(), wanted))
        netXException::Throw(netNameServiceProblem, "Already registered with Name Server");
    if (!RegisterWithNMS(proxy.release(), portN, wanted))
        netXException::Throw(netNameServiceProblem, "Can't register with Name Server");
    serverName = wanted;
    isRegistered = true;
}

void netBaseServer::Unregister() noexcept
try {
    if (!std::exchange(isRegistered, false))
        return;
    const nmsOwnedProxy proxy = netNameServer(nullptr, netAnswerEnd());
    if (proxy != nullptr)
        netUnregister(proxy.get(), portN, serverName);
} catch (const std::bad_alloc&) { // the name server drops the names of processes that have ended
}

netBaseServer::~netBaseServer()
{
    EndService();
    delete loop;
}

void netBaseServer::EndService() noexcept
{
    loop->StopListening();
    Unregister();
    loop->StopRequests();
}

void netBaseServer::Loop::StopListening()
{
    connectionWaits.reset();
    listening.reset();
    silent.Clear();
}

void netBaseServer::Loop::StopRequests()
{
    const btkTimeval grace =
        server.gracePeriod == INFINITE ? btkTimeval::Forever() : btkTimeval(server.gracePeriod);
    for (const auto& request : requests)
        request->TellToStop(grace);
    for (const auto& request : requests)
        request->WaitExitCode();
    requests.clear();
}

// ---- stopping

void netBaseServer::Stop()
{
    loop->Stop();
}

void netBaseServer::Loop::Stop()
{
    const btkTimeval grace =
        server.gracePeriod == INFINITE ? btkTimeval::Forever() : btkTimeval(server.gracePeriod);
    stopSign->SetEnd(btkTimeval::Now() + grace);
    isStopAsked.store(true, std::memory_order_release);
    Event_Set(stopAsked.Get());
}

bool netBaseServer::Loop::TakeStop()
{
    if (!isStopAsked.load(std::memory_order_relaxed) || !isStopAsked.exchange(false))
        return false;
    Event_Reset(stopAsked.Get());
    stopSign->SetEnd(btkTimeval::Forever());
    return true;
}

netSocketStream* netBaseServer::Connect(netAddress* address, double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = netConnect(address, btkTimeval::Now() + btkTimeval(timeout));
    return socket != nullptr ? netSocketStream::Create(socket.release()) : nullptr;
}

// ---- waiting for connections

std::unique_ptr<btkStreamSocket> netBaseServer::Loop::WaitForRequest(double timeout, bool isByteWanted)
{
    if (!isByteWanted) {
        if (const std::unique_ptr<Silent> oldest = silent.Take([](const Silent&) { return true; }))
            return std::move(oldest->socket);
    }
    btkTimeval now = btkTimeval::Now();
    const btkTimeval end = now + (timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout));
    do {
        const bool rests = now < restEnd;
        btkTimeval wake = rests ? std::min(end, restEnd) : end;
        if (!silent.IsEmpty())
            wake = std::min(wake, silent[0].since + server.silentPatience);
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
        silent.DropUntil(now - server.silentPatience);
        if (rests || !connectionWaits->WasSignaled()) {
            DropTooMany(now);
            continue;
        }
        std::unique_ptr<btkStreamSocket> taken = TakeConnection(now);
        if (taken == nullptr || !isByteWanted)
            return taken;
        // A wait costs more the more are silent, and then finds more that have come meanwhile.
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

// The last that came stays: it may have spoken already.
void netBaseServer::Loop::DropTooMany(btkTimeval now)
{
    if (silent.IsOverfull())
        silent.TakeLeaving(now);
}

void netBaseServer::Loop::AddSilent(std::unique_ptr<btkStreamSocket> socket, btkTimeval now)
{
    auto one = std::make_unique<Silent>();
    one->address = socket->GetPeerAddrStr();
    one->since = now;
    one->input = EventOver(socket->GetInputEvent());
    one->socket = std::move(socket);
    silent.Add(std::move(one));
}

// The next connection; null when accepting it failed. Without room for one, the port is left alone for a
// while: it stays ready, and asking again at once would not let this thread sleep.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeConnection(btkTimeval now)
{
    std::unique_ptr<btkStreamSocket> socket(new (std::nothrow) btkStreamSocket);
    if (socket != nullptr && listening->Accept(socket.get()))
        return socket;
    int error = socket == nullptr ? ENOMEM : errno;
    const auto isNoRoom = [&] {
        return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
    };
    if (socket != nullptr && isNoRoom() && silent.TakeLeaving(now) != nullptr) {
        if (listening->Accept(socket.get()))
            return socket;
        error = errno;
    }
    if (error == EBADF || error == EINVAL || error == ENOTSOCK)
        netXException::Throw(socketFailed, "Socket failed");
    if (isNoRoom())
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

// ---- the loop

void netBaseServer::Run()
{
    while (!loop->TakeStop()) {
        if (loop->CheckAsyncRequests() == netServerTerminate)
            return;
        std::unique_ptr<btkStreamSocket> socket;
        try {
            socket = loop->WaitForRequest(timeSlice, silentPatience > btkTimeval());
        } catch (const std::bad_alloc&) { // the connection that met it is lost
        }
        if (socket == nullptr && loop->TakeStop())
            return;
        const netServerLoopAction action = socket != nullptr
                                               ? loop->Serve(std::move(socket))
                                               : Reported(*this, {}, [this] { return OnIdle(); });
        if (action == netServerTerminate)
            return;
    }
}

netServerLoopAction netBaseServer::Loop::Serve(std::unique_ptr<btkStreamSocket> socket)
{
    std::unique_ptr<netSocketStream, qelDelete> made;
    try {
        const netServerLoopAction action = server.PreprocessRequest(socket.get());
        if (action == netServerContinue || action == netServerTerminate || server.onRequest == nullptr)
            return action == netServerTerminate ? action : netServerContinue;
        socket->SetStopSign(stopSign);
        made.reset(netSocketStream::Create(socket.release()));
    } catch (const std::bad_alloc&) {
        return netServerContinue;
    }
    const std::string peer = made->getPeerAddress().CastToCString();
    netSocketStream* const stream = made.release();
    const netServerLoopAction action = Reported(server, peer, [&] { return server.OnRequest(stream); });
    if (action == netSpawnAsyncServer)
        SpawnAsyncRequest(stream);
    return action;
}

netServerLoopAction netBaseServer::PreprocessRequest(btkStreamSocket* /*socket*/)
{
    return netServerNoDecision;
}

netServerLoopAction netBaseServer::OnRequest(netSocketStream* stream)
{
    return onRequest != nullptr ? onRequest->Invoke(this, stream) : netServerNoDecision;
}

netServerLoopAction netBaseServer::OnAsyncRequest(netSocketStream* stream, evtEvent* stop)
{
    return onAsyncRequest != nullptr ? onAsyncRequest->Invoke(this, stream, stop) : netServerNoDecision;
}

netServerLoopAction netBaseServer::OnIdle()
{
    return onIdle != nullptr ? onIdle->Invoke(this) : netServerNoDecision;
}

// ---- asynchronous requests

void netBaseServer::Loop::SpawnAsyncRequest(netSocketStream* stream)
{
    if (StartAsyncRequest(stream))
        return;
    std::cout << "netBaseServer::SpawnAsyncRequest: create thread failed" << std::endl;
    xdelete(stream);
}

bool netBaseServer::Loop::StartAsyncRequest(netSocketStream* stream)
try {
    // Those whose work is done do not count, though they may not have been collected yet.
    const int running = static_cast<int>(requests.size()) - endedBodies;
    if (server.asyncLimit > 0 && running >= server.asyncLimit)
        return false;
    std::list<std::unique_ptr<netAsyncRequest>> one; // what follows the start must not fail
    one.push_back(std::make_unique<netAsyncRequest>(&server, stream));
    if (!one.back()->Start())
        return false;
    requests.splice(requests.end(), one);
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

netServerLoopAction netBaseServer::Loop::CheckAsyncRequests()
{
    netServerLoopAction result = netServerContinue;
    if (endedBodies.load(std::memory_order_relaxed) == 0)
        return result;
    std::erase_if(requests, [&](const std::unique_ptr<netAsyncRequest>& request) {
        if (!request->IsExited())
            return false;
        --endedBodies;
        if (request->GetExitCode() == netServerTerminate)
            result = netServerTerminate;
        return true;
    });
    return result;
}

netAsyncRequest::~netAsyncRequest()
{
    if (stopSign != nullptr)
        stopSign->Leave();
    Close();
}

bool netAsyncRequest::OnPreStart()
{
    if (!netThread::OnPreStart())
        return false;
    wasTold = false;
    stopSign = std::make_shared<btkStopSign>(GetSignalHandle());
    stream->SetStopSign(stopSign);
    return true;
}

void netAsyncRequest::TellToStop(btkTimeval grace) noexcept
{
    if (wasTold)
        return;
    wasTold = true;
    stopSign->SetEnd(btkTimeval::Now() + grace);
    try {
        const char byte = 0;
        ControlStream()->WriteBytes(&byte, 1);
        ControlStream()->Flush(true);
    } catch (xthrowable* e) { // the body has ended or ends by itself
        const qelCaught caught(e);
    } catch (const std::bad_alloc&) { // for the report of that
    }
}

int netAsyncRequest::OnStart()
{
    // Also when the thread is cancelled.
    struct EndNote
    {
        netBaseServer::Loop& loop;
        ~EndNote() { loop.NoteEnd(); }
    };
    const EndNote note{*server->loop};

    std::unique_ptr<netSocketStream, qelDelete> unserved(stream);
    try {
        const std::unique_ptr<evtEvent, qelDelete> stop(SignalStream()->InputEvent());
        const std::string peer = stream->getPeerAddress().CastToCString();
        if (server->onAsyncRequest != nullptr)
            unserved.release();
        return Reported(*server, peer, [&] { return server->OnAsyncRequest(stream, stop.get()); });
    } catch (xthrowable* e) {
        const qelCaught caught(e);
    } catch (...) {
        qelPassCancellation();
    }
    return netServerContinue;
}

void netAsyncRequest::AtFork(bool parentSide)
{
    netThread::AtFork(parentSide);
    if (parentSide)
        xdelete(stream);
}
