#include "netbaseserver.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>

#include "netaddress.h"
#include "netasyncrequest_p.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "qelcaught_p.h"
#include "qeltable.h"

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
constexpr std::size_t mostSilent = 64;
constexpr btkTimeval longestRest(0, 100000);

std::unique_ptr<btkEvent> InputOf(const btkSocket& socket)
{
    auto base = std::make_unique<btkSelectEvent>(socket.GetHandle(), 0);
    auto event = std::make_unique<btkEvent>(base.get());
    static_cast<void>(base.release());
    return event;
}

} // namespace

class [[gnu::visibility("hidden")]] netBaseServer::Loop
{
public:
    Loop(netBaseServer & of, std::unique_ptr<btkAcceptSocket> socket)
        : server(of), listening(std::move(socket)), connectionWaits(InputOf(*listening))
    {
    }

    btkHandle GetHandle() const
    {
        return listening->GetHandle();
    }
    /// The next connection to be served; null when `timeout` seconds have passed. `mayBeSilent`: how long one
    /// is kept whose first byte has not come; 0: that is not waited for.
    std::unique_ptr<btkStreamSocket> WaitForRequest(double timeout, btkTimeval mayBeSilent);
    netServerLoopAction Serve(std::unique_ptr<btkStreamSocket> socket);
    /// Waits for the end of asynchronous requests and collects those that have ended.
    netServerLoopAction CheckAsyncRequests(btkTimeval timeout);
    /// Closes the port and the connections that wait.
    void StopListening();
    /// Asks all asynchronous requests to stop, and waits until they have ended.
    void StopRequests();
    /// An asynchronous request has ended; called in its thread.
    void NoteEnd()
    {
        ++endedBodies;
    }

private:
    /// A connection whose first byte has not come.
    struct Silent
    {
        std::unique_ptr<btkStreamSocket> socket;
        btkTimeval since;
        std::unique_ptr<btkEvent> input;
    };

    std::unique_ptr<btkStreamSocket> TakeConnection();
    std::unique_ptr<btkStreamSocket> TakeSpoken();
    void DropSilent(btkTimeval latest);
    void SpawnAsyncRequest(netSocketStream * stream);
    bool StartAsyncRequest(netSocketStream * stream);

    netBaseServer& server;

    std::unique_ptr<btkAcceptSocket> listening;
    std::unique_ptr<btkEvent> connectionWaits; // on while `listening` has a connection
    btkTimeval restEnd;                        // until then `listening` is left alone
    std::deque<Silent> silent;                 // the oldest first

    std::list<std::unique_ptr<netAsyncRequest>> requests;
    btkEvent::List waitList;          // the exit events of `requests`
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
    return CreateAs<netBaseServer>(name, port);
}

netBaseServer* netBaseServer::Make(const char* name, int port, Maker make)
{
    struct Offer
    {
        ~Offer() { delete socket; }
        btkAcceptSocket* socket;
    };
    Offer offer{new btkAcceptSocket};
    if (!offer.socket->Listen(port == xnullint ? 0 : port, nullptr))
        return nullptr;
    std::unique_ptr<netBaseServer, qelDelete> server(make(offer.socket));
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
    if (!isRegistered)
        return;
    const nmsOwnedProxy proxy = netNameServer(nullptr, netAnswerEnd());
    if (proxy != nullptr)
        netUnregister(proxy.get(), portN, serverName);
} catch (const std::bad_alloc&) { // the name server drops the names of processes that have ended
}

netBaseServer::~netBaseServer()
{
    loop->StopListening();
    Unregister();
    loop->StopRequests();
    delete loop;
}

void netBaseServer::Loop::StopListening()
{
    connectionWaits.reset();
    listening.reset();
    silent.clear();
}

void netBaseServer::Loop::StopRequests()
{
    for (const auto& request : requests)
        request->TellToStop();
    while (!waitList.empty())
        CheckAsyncRequests(btkTimeval(1, 0));
    for (const auto& request : requests) // those without an event
        request->WaitExitCode();
}

netSocketStream* netBaseServer::Connect(netAddress* address, double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = netConnect(address, btkTimeval::Now() + btkTimeval(timeout));
    return socket != nullptr ? netSocketStream::Create(socket.release()) : nullptr;
}

// ---- waiting for connections

std::unique_ptr<btkStreamSocket> netBaseServer::Loop::WaitForRequest(double timeout, btkTimeval mayBeSilent)
{
    const bool isByteWanted = mayBeSilent > btkTimeval();
    if (!isByteWanted && !silent.empty()) {
        std::unique_ptr<btkStreamSocket> oldest = std::move(silent.front().socket);
        silent.pop_front();
        return oldest;
    }
    btkTimeval now = btkTimeval::Now();
    const btkTimeval end = now + (timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout));
    do {
        const bool rests = now < restEnd;
        btkTimeval wake = rests ? std::min(end, restEnd) : end;
        if (!silent.empty())
            wake = std::min(wake, silent.front().since + mayBeSilent);
        btkEvent::WaitForAny(silent.size() + 1, wake - now, [&](std::size_t i) {
            return i > 0 ? silent[i - 1].input.get() : rests ? nullptr : connectionWaits.get();
        });
        if (std::unique_ptr<btkStreamSocket> spoken = TakeSpoken())
            return spoken;
        now = btkTimeval::Now();
        DropSilent(now - mayBeSilent);
        if (rests || !connectionWaits->WasSignaled())
            continue;
        std::unique_ptr<btkStreamSocket> taken = TakeConnection();
        if (taken == nullptr || !isByteWanted || taken->IsReadable())
            return taken;
        if (silent.size() == mostSilent)
            silent.pop_front();
        std::unique_ptr<btkEvent> input = InputOf(*taken);
        silent.push_back({std::move(taken), now, std::move(input)});
    } while (now < end);
    return nullptr;
}

// The next connection; null when accepting it failed. Without room for one, the port is left alone for a
// while: it stays ready, and asking again at once would not let this thread sleep.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeConnection()
{
    std::unique_ptr<btkStreamSocket> socket(new (std::nothrow) btkStreamSocket);
    if (socket != nullptr && listening->Accept(socket.get()))
        return socket;
    int error = socket == nullptr ? ENOMEM : errno;
    const auto isNoRoom = [&] {
        return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
    };
    if (socket != nullptr && isNoRoom() && !silent.empty()) {
        silent.pop_front();
        if (listening->Accept(socket.get()))
            return socket;
        error = errno;
    }
    if (error == EBADF || error == EINVAL || error == ENOTSOCK)
        netXException::Throw(socketFailed, "Socket failed");
    if (isNoRoom())
        restEnd = btkTimeval::Now() + (server.timeSlice == INFINITE
                                           ? longestRest
                                           : std::min(longestRest, btkTimeval(server.timeSlice)));
    return nullptr;
}

// The oldest connection whose first byte, or end, the last wait has found.
std::unique_ptr<btkStreamSocket> netBaseServer::Loop::TakeSpoken()
{
    // An urgent value ends the wait, too, but is no byte that a handshake could begin with.
    const auto found = std::find_if(silent.begin(), silent.end(), [](const Silent& one) {
        return one.input->WasSignaled() && one.socket->IsReadable();
    });
    if (found == silent.end())
        return nullptr;
    std::unique_ptr<btkStreamSocket> socket = std::move(found->socket);
    silent.erase(found);
    return socket;
}

// Closes those that came at `latest` or before.
void netBaseServer::Loop::DropSilent(btkTimeval latest)
{
    while (!silent.empty() && silent.front().since <= latest)
        silent.pop_front();
}

netSocketStream* netBaseServer::Accept(double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = loop->WaitForRequest(timeout, {});
    return socket != nullptr ? netSocketStream::Create(socket.release()) : nullptr;
}

netEvent* netBaseServer::AcceptEvent()
{
    return new (pDefMemMgr) netEvent(new (std::nothrow) btkSelectEvent(loop->GetHandle(), 0), this);
}

// ---- the loop

void netBaseServer::Run()
{
    for (;;) {
        if (loop->CheckAsyncRequests({}) == netServerTerminate)
            return;
        std::unique_ptr<btkStreamSocket> socket;
        try {
            socket = loop->WaitForRequest(timeSlice, silenceLimit);
        } catch (const std::bad_alloc&) { // the connection that met it is lost
        }
        if ((socket != nullptr ? loop->Serve(std::move(socket)) : OnIdle()) == netServerTerminate)
            return;
    }
}

netServerLoopAction netBaseServer::Loop::Serve(std::unique_ptr<btkStreamSocket> socket)
{
    netSocketStream* stream = nullptr;
    try {
        const netServerLoopAction action = server.PreprocessRequest(socket.get());
        if (action == netServerContinue || action == netServerTerminate)
            return action;
        stream = netSocketStream::Create(socket.release());
    } catch (const std::bad_alloc&) {
        return netServerContinue;
    }
    if (server.onRequest == nullptr) {
        xdelete(stream);
        return netServerContinue;
    }
    const netServerLoopAction action = server.OnRequest(stream);
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
    if (waitList.capacity() == requests.size()) // what follows the start must not fail
        waitList.reserve(2 * requests.size() + 16);
    requests.push_back(std::make_unique<netAsyncRequest>(&server, stream));
    netAsyncRequest& request = *requests.back();
    if (!request.Start()) {
        requests.pop_back();
        return false;
    }
    if (request.ExitEvent() != nullptr)
        waitList.push_back(request.ExitEvent());
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

netServerLoopAction netBaseServer::Loop::CheckAsyncRequests(btkTimeval timeout)
{
    // Asking many events each time the loop comes round would cost more than serving.
    if (requests.empty() || (timeout == btkTimeval() && endedBodies.load(std::memory_order_relaxed) == 0))
        return netServerContinue;
    try {
        btkEvent::Wait(waitList, timeout);
    } catch (const std::bad_alloc&) { // they are collected another time
        return netServerContinue;
    }
    netServerLoopAction result = netServerContinue;
    std::erase_if(waitList, [](btkEvent* event) { return event->WasSignaled(); });
    std::erase_if(requests, [&](const std::unique_ptr<netAsyncRequest>& request) {
        if (!request->WasFoundEnded())
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
    delete exitEvent;
    Close();
}

void netAsyncRequest::TellToStop() noexcept
{
    if (wasTold)
        return;
    wasTold = true;
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
        if (server->onAsyncRequest != nullptr)
            unserved.release();
        return server->OnAsyncRequest(stream, stop.get());
    } catch (xthrowable* e) {
        const qelCaught caught(e);
    } catch (...) {
        qelPassCancellation();
    }
    return netServerContinue;
}

void netAsyncRequest::OnPostStart()
try {
    netThread::OnPostStart();
    wasTold = false;
    btkBaseEvent* const exit = GetExitEvent();
    exitEvent = new (std::nothrow) btkEvent(exit);
    if (exitEvent == nullptr)
        delete exit;
} catch (const std::bad_alloc&) { // collected without an event
}

void netAsyncRequest::AtFork(bool parentSide)
{
    netThread::AtFork(parentSide);
    if (parentSide)
        xdelete(stream);
}
