#include "netbaseserver.h"

#include <algorithm>
#include <cerrno>
#include <iostream>

#include "netaddress.h"
#include "netasyncrequest_p.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "qelcaught_p.h"
#include "qeltable.h"
#include <qel/base/nmsclient.h>

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

// ---- creation and end

netBaseServer::netBaseServer(btkAcceptSocket* socket, xstring name)
    : portN(socket->GetPortN()), serverName(name), isRegistered(!(name == nullptr)), listening(socket),
      connectionWaits(InputOf(*socket))
{
}

netBaseServer* netBaseServer::Create(const char* name, int port)
{
    return CreateAs<netBaseServer>(name, port);
}

std::unique_ptr<btkAcceptSocket> netBaseServer::Listen(int port)
{
    auto socket = std::make_unique<btkAcceptSocket>();
    if (!socket->Listen(port == xnullint ? 0 : port, nullptr))
        return nullptr;
    return socket;
}

void netBaseServer::Register(const char* name)
{
    if (name == nullptr || name == xnullstr)
        return;
    nmsOwnedProxy proxy(getNameServer(nullptr));
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
    const nmsOwnedProxy proxy(getNameServer(nullptr));
    if (proxy != nullptr)
        UnregisterFromNMS(proxy.get(), serverName);
} catch (const std::bad_alloc&) { // the name server drops the names of processes that have ended
}

netBaseServer::~netBaseServer()
{
    connectionWaits.reset();
    listening.reset();
    silent.clear();
    Unregister();
    for (const auto& request : requests)
        request->TellToStop();
    while (!waitList.empty())
        CheckAsyncRequests(btkTimeval(1, 0));
    for (const auto& request : requests) // those without an event
        request->WaitExitCode();
}

netSocketStream* netBaseServer::Connect(netAddress* address, double timeout)
{
    std::unique_ptr<btkStreamSocket> socket =
        netConnect(address, timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout));
    return socket != nullptr ? netSocketStream::Create(socket.release()) : nullptr;
}

// ---- waiting for connections

std::unique_ptr<btkStreamSocket> netBaseServer::WaitForRequest(double timeout, btkTimeval mayBeSilent)
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
std::unique_ptr<btkStreamSocket> netBaseServer::TakeConnection()
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
        restEnd = btkTimeval::Now() +
                  (timeSlice == INFINITE ? longestRest : std::min(longestRest, btkTimeval(timeSlice)));
    return nullptr;
}

// The oldest connection whose first byte, or end, the last wait has found.
std::unique_ptr<btkStreamSocket> netBaseServer::TakeSpoken()
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
void netBaseServer::DropSilent(btkTimeval latest)
{
    while (!silent.empty() && silent.front().since <= latest)
        silent.pop_front();
}

netSocketStream* netBaseServer::Accept(double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = WaitForRequest(timeout, {});
    return socket != nullptr ? netSocketStream::Create(socket.release()) : nullptr;
}

netEvent* netBaseServer::AcceptEvent()
{
    return new (pDefMemMgr) netEvent(new (std::nothrow) btkSelectEvent(listening->GetHandle(), 0), this);
}

// ---- the loop

void netBaseServer::Run()
{
    for (;;) {
        if (CheckAsyncRequests({}) == netServerTerminate)
            return;
        std::unique_ptr<btkStreamSocket> socket;
        try {
            socket = WaitForRequest(timeSlice, silenceLimit);
        } catch (const std::bad_alloc&) { // the connection that met it is lost
        }
        if ((socket != nullptr ? Serve(std::move(socket)) : OnIdle()) == netServerTerminate)
            return;
    }
}

netServerLoopAction netBaseServer::Serve(std::unique_ptr<btkStreamSocket> socket)
{
    netSocketStream* stream = nullptr;
    try {
        const netServerLoopAction action = PreprocessRequest(socket.get());
        if (action == netServerContinue || action == netServerTerminate)
            return action;
        stream = netSocketStream::Create(socket.release());
    } catch (const std::bad_alloc&) {
        return netServerContinue;
    }
    if (onRequest == nullptr) {
        xdelete(stream);
        return netServerContinue;
    }
    const netServerLoopAction action = OnRequest(stream);
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

void netBaseServer::SpawnAsyncRequest(netSocketStream* stream)
{
    if (StartAsyncRequest(stream))
        return;
    std::cout << "netBaseServer::SpawnAsyncRequest: create thread failed" << std::endl;
    xdelete(stream);
}

bool netBaseServer::StartAsyncRequest(netSocketStream* stream)
try {
    if (asyncLimit > 0 && requests.size() >= static_cast<std::size_t>(asyncLimit))
        return false;
    if (waitList.capacity() == requests.size()) // what follows the start must not fail
        waitList.reserve(2 * requests.size() + 16);
    requests.push_back(std::make_unique<netAsyncRequest>(this, stream));
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

netServerLoopAction netBaseServer::CheckAsyncRequests(btkTimeval timeout)
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
        std::atomic<int>& count;
        ~EndNote() { ++count; }
    };
    const EndNote note{server->endedBodies};

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
