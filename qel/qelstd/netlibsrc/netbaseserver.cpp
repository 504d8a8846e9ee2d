#include "netbaseserver.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <qel/base/btkenvironment.h>

#include "monstatistics.h"
#include "netaddress.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "netserverloop_p.h"
#include "qeltable.h"
#include "xerrhandler.h"

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

ListenInterface& defaultInterface()
{
    static ListenInterface* const setting = new ListenInterface; // for servers that outlive every static
    return *setting;
}

} // namespace

// ---- reports

void netReport(netBaseServer& server, const std::string& peer, const std::string& text)
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

void netReportFailure(netBaseServer& server, const std::string& peer, const qel::caught& failure)
{
    const xstring what = failure.what();
    const char* const text = what == nullptr ? "no exception" : what.CastToCString();
    const bool isHandled = [&] {
        static std::mutex dispatching; // servers run in threads of their own, and the list has no lock
        const std::lock_guard lock(dispatching);
        return xerrhandler::dispatch(text, failure.get(), &server, nullptr) != 0;
    }();
    if (!isHandled)
        netReport(server, peer, text);
}

qel::caught netForeignFailure(const char* text) noexcept
try {
    const xrchandle<qelXNativeException> failure = qelCreateNativeException(text);
    xrcattach(failure.get());
    return qel::caught(failure.get());
} catch (const std::bad_alloc&) {
    return qel::caught(nullptr);
}

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

netBaseServer* netBaseServer::Create(const char* name, int port, const char* listenOn)
{
    return CreateAs<netBaseServer>(name, port, listenOn);
}

void netBaseServer::setListenInterface(const char* listenOn)
{
    ListenInterface& setting = defaultInterface();
    const std::lock_guard lock(setting.mutex);
    setting.name = listenOn != nullptr ? std::optional<std::string>(listenOn) : std::nullopt;
}

netBaseServer* netBaseServer::Make(const char* name, int port, const char* listenOn, Maker make)
{
    struct Offer
    {
        ~Offer() { delete socket; }
        btkAcceptSocket* socket;
    };
    Offer offer{new btkAcceptSocket};
    const std::optional<std::string> setting = defaultInterface().Get();
    const char* const wanted = listenOn != nullptr ? listenOn : setting ? setting->c_str() : nullptr;
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
    // The name server separates processes, and this lock the threads of this process: no other thread takes
    // the name between the query and the registration.
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
} catch (const std::bad_alloc&) { // the name server drops the names of processes that have exited
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

// ---- the loop

void netBaseServer::Run()
{
    loop->FindTlsFolder();
    while (!loop->TakeStop()) {
        if (loop->CheckAsyncRequests() == netServerTerminate)
            return;
        std::unique_ptr<btkStreamSocket> socket;
        try {
            socket = loop->WaitForRequest(timeSlice, silentPatience > btkTimeval());
        } catch (const std::bad_alloc&) { // only this connection is lost
        }
        if (socket == nullptr && loop->TakeStop())
            return;
        const netServerLoopAction action = socket != nullptr ? loop->Serve(std::move(socket))
                                                             : loop->Guarded({}, [this] { return OnIdle(); });
        if (action == netServerTerminate)
            return;
    }
}

netServerLoopAction netBaseServer::Loop::Serve(std::unique_ptr<btkStreamSocket> socket)
{
    // Notes a service in the thread of the loop; those in threads are noted at their end.
    struct Watch
    {
        netStatistics* statistics;
        btkTimeval begin = statistics != nullptr ? btkTimeval::Now() : btkTimeval();
        ~Watch()
        {
            if (statistics != nullptr)
                statistics->NoteService(begin);
        }
    };
    Watch watch{statistics.get()};
    std::unique_ptr<netSocketStream, qelDelete> made;
    try {
        const netServerLoopAction action = server.PreprocessRequest(socket.get());
        if (action == netServerContinue || action == netServerTerminate || server.onRequest == nullptr)
            return action == netServerTerminate ? action : netServerContinue;
        socket->SetStopSign(stopSign);
        if (statistics != nullptr)
            socket->SetTraffic(statistics->traffic);
        made.reset(netSocketStream::Create(socket.release()));
    } catch (const std::bad_alloc&) {
        return netServerContinue;
    }
    const std::string peer = made->getPeerAddress().CastToCString();
    netSocketStream* const stream = made.release();
    Note(netCount::served);
    const netServerLoopAction action = Guarded(peer, [&] { return server.OnRequest(stream); });
    if (action == netSpawnAsyncServer) {
        watch.statistics = nullptr;
        SpawnAsyncRequest(stream);
    }
    return action;
}

bool netBaseServer::setStatistics(bool isOn, const char* name)
{
    loop->wantsStatistics = isOn;
    if (isOn)
        loop->BeginStatistics(name);
    return !isOn || loop->statistics != nullptr;
}

void netBaseServer::Loop::BeginStatistics(const char* name)
{
    if (!wantsStatistics) {
        std::string setting;
        wantsStatistics = btkEnvironment::GetTrusted("QELSTD_STATS", setting) && setting == "1";
    }
    if (*wantsStatistics && !isStatisticsTried) {
        isStatisticsTried = true;
        statistics = netStatistics::Create(server, name);
        if (statistics != nullptr)
            statistics->Publish(silent.GetCount());
    }
}

xstring netBaseServer::getStatisticsFile()
{
    return loop->statistics != nullptr ? xstring(loop->statistics->getFile().getPath().c_str())
                                       : xstring(nullptr);
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

void netBaseServer::keepHandler(xobject* handler)
{
    loop->handlers.emplace_back(handler);
}

void netBaseServer::keepErrorHandler(qel::netErrorHandler* handler) noexcept
{
    loop->onError.reset(handler);
}

netServerLoopAction netBaseServer::OnIdle()
{
    return onIdle != nullptr ? onIdle->Invoke(this) : netServerNoDecision;
}
