#pragma once

#include <concepts>
#include <cstddef>
#include <utility>

#include <qel/evtevent.h>
#include <qel/netsocketstream.h>
#include <qel/qelduration.h>
#include <qel/xstring.h>

class btkAcceptSocket;
class btkStreamSocket;
class netAddress;
class netBaseServer;

namespace qel {

class caught;

/// Decides whether a server continues after a failure; made by onError.
struct netErrorHandler
{
    virtual ~netErrorHandler() = default;
    /// Whether `server` continues; if not, the failure leaves Run.
    virtual bool goesOn(netBaseServer& server, const caught& failure) = 0;
};

} // namespace qel

/// A handler's instruction to the request loop.
enum netServerLoopAction : int { netServerContinue, netServerTerminate, netSpawnAsyncServer };
QEL_ENUM(netServerLoopAction); // "netlib::ServerLoopAction"

/// Returned by a hook that makes no decision; not a value of the enumeration.
inline constexpr netServerLoopAction netServerNoDecision = static_cast<netServerLoopAction>(3);

// ---- handlers: the application derives from them, sets them before it calls Run, and owns them.

/// Serves a connection, in the thread of the loop, which serves no other client meanwhile: long work, and
/// reading from clients that may be silent, belongs in an asynchronous request.
///
///     class Echo : public netBaseServer_OnRequest_cb
///     {
///         netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream) override
///         {
///             const auto client = qel::own(stream);
///             client->WriteInt(client->ReadInt());
///             return netServerContinue;
///         }
///     };
class QEL_API netBaseServer_OnRequest_cb : public virtual xobject
{
    QEL_OBJECT(netBaseServer_OnRequest_cb); // "netlib::BaseServer_OnRequest_cb"

public:
    /// Owns `stream`, and frees it with xdelete, unless it returns netSpawnAsyncServer, which passes it to
    /// the asynchronous handler. An exception is reported and leaves Run.
    virtual netServerLoopAction Invoke(netBaseServer* server, netSocketStream* stream) = 0;
};

/// Serves a connection in a separate thread; called by several threads at once.
///
///     class Counter : public netBaseServer_OnAsyncRequest_cb
///     {
///         netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream, evtEvent* stop) override
///         {
///             const auto client = qel::own(stream);
///             for (int i = 0; !stop->getIsSignaled(); ++i)
///                 client->WriteInt(i);
///             return netServerContinue;
///         }
///     };
class QEL_API netBaseServer_OnAsyncRequest_cb : public virtual xobject
{
    QEL_OBJECT(netBaseServer_OnAsyncRequest_cb); // "netlib::BaseServer_OnAsyncRequest_cb"

public:
    /// Owns `stream`, and frees it with xdelete. Returns soon after `stop` has become signaled: the server is
    /// about to stop. The server owns `stop`. An exception counts as netServerContinue. The thread of Run
    /// reports it when it joins the request: to the error listeners, with the server as the subject, and on
    /// the standard error output unless one of them has handled it.
    virtual netServerLoopAction Invoke(netBaseServer* server, netSocketStream* stream, evtEvent* stop) = 0;
};

/// Called when a time slice has passed without a connection.
///
///     class UntilInterrupted : public netBaseServer_OnIdle_cb
///     {
///         netServerLoopAction Invoke(netBaseServer*) override
///         {
///             return interrupt->getIsSignaled() ? netServerTerminate : netServerContinue;
///         }
///         qel::owned<pcInterruptEvent> interrupt = qel::own(pcInterruptEvent::Create());
///     };
class QEL_API netBaseServer_OnIdle_cb : public virtual xobject
{
    QEL_OBJECT(netBaseServer_OnIdle_cb); // "netlib::BaseServer_OnIdle_cb"

public:
    /// An exception is reported and leaves Run.
    virtual netServerLoopAction Invoke(netBaseServer* server) = 0;
};

/// An event of a server: signaled while a connection waits to be accepted. Lives no longer than the server.
///
///     const auto server = qel::own(netBaseServer::Create(xnullstr, 0));
///     const auto waiting = qel::own(server->AcceptEvent());
///     if (waiting->Wait(5s))
///         qel::own(server->Accept(0))->WriteString("hello");
class QEL_API netEvent : public evtEvent
{
    QEL_OBJECT(netEvent); // "netlib::Event"

public:
    netBaseServer* getServer() { return server; }

protected:
    netEvent(btkBaseEvent* base, netBaseServer* of) : evtEvent(base), server(of) {}

private:
    friend class netBaseServer;

    netBaseServer* server;
};

/// A std::unique_ptr of an H.
template<class Owner, class H>
concept netOwnerOf = requires(Owner owner)
{
    {
        owner.release()
        } -> std::convertible_to<H*>;
};

/// A server that listens on a port and serves one connection at a time, or some in their own threads. It may
/// have a name, under which the name server of this machine knows its port while it lives.
///
/// Everything but OnAsyncRequest and Stop is called by the one thread that owns the server. Running out of
/// descriptors, threads or memory loses only the affected request; the loop continues. Not counted: freed
/// with xdelete, which signals the asynchronous requests to stop and waits for each of them; after the grace
/// period the stream of a running one no longer blocks.
///
/// The requests use the server while they run, so the destructor of a class that derives from this one calls
/// EndService before anything else.
///
///     const auto server = qel::own(netBaseServer::Create(xnullstr, 7000)); // null: the port is taken
///     server->setOnRequest(qel::onRequest([](netSocketStream& client) { client.WriteString("hello"); }));
///     server->Run(); // until Stop
class QEL_API netBaseServer : public virtual xobject
{
    QEL_OBJECT(netBaseServer); // "netlib::BaseServer"
    QEL_NOT_COUNTED;

public:
    /// A new server on `port`; 0 or xnullint lets the system choose. `name`: null or xnullstr for none.
    /// `listenOn`: the address or name of the interface to listen on; null: that of setListenInterface. Null
    /// when it cannot listen there. The caller owns the server.
    /// @throws netXException  there is no name server, or it already has the name or rejects it
    static netBaseServer* Create(const char* name, int port);
    static netBaseServer* Create(const char* name, int port, const char* listenOn);
    template<qelTextObject S>
    static netBaseServer* Create(const S& name, int port)
    {
        return Create(qelTextArgument(name), port);
    }
    template<qelText S, qelText L>
    requires(qelTextObject<S> || qelTextObject<L>) static netBaseServer* Create(const S& name, int port,
                                                                                const L& listenOn)
    {
        return Create(qelTextArgument(name), port, qelTextArgument(listenOn));
    }
    /// The interface for servers of this process that are created without one: its address or name; null, the
    /// initial value: all interfaces. Safe to call from any thread.
    static void setListenInterface(const char* listenOn);
    ~netBaseServer() override;

    /// Connects to `address`; if its port is not known, queries the name server of its host. `timeout`, in
    /// seconds, is for that and the connecting together; INFINITE waits as long as the operating system does.
    /// Null when the connection is not established within it. The caller owns the stream.
    /// @throws netXException  as ResolvePort
    static netSocketStream* Connect(netAddress* address, double timeout);
    template<qelDuration D>
    static netSocketStream* Connect(netAddress* address, const D& limit)
    {
        return Connect(address, qelSeconds(limit));
    }

    virtual void setOnRequest(netBaseServer_OnRequest_cb* handler) { onRequest = handler; }
    virtual void setOnAsyncRequest(netBaseServer_OnAsyncRequest_cb* handler) { onAsyncRequest = handler; }
    virtual void setOnIdle(netBaseServer_OnIdle_cb* handler) { onIdle = handler; }

    /// The same for handlers that the server owns and frees at its end, not before: those that qel::onRequest
    /// and its like make of functions, see <qel/qelserver.h>.
    template<netOwnerOf<netBaseServer_OnRequest_cb> Owner>
    void setOnRequest(Owner handler)
    {
        setOnRequest(keep(handler));
    }
    template<netOwnerOf<netBaseServer_OnAsyncRequest_cb> Owner>
    void setOnAsyncRequest(Owner handler)
    {
        setOnAsyncRequest(keep(handler));
    }
    template<netOwnerOf<netBaseServer_OnIdle_cb> Owner>
    void setOnIdle(Owner handler)
    {
        setOnIdle(keep(handler));
    }
    /// Decides whether Run continues after an exception of a handler that it called, in place of the report
    /// of the exception; made by qel::onError. Null: it is reported, and leaves Run.
    template<netOwnerOf<qel::netErrorHandler> Owner>
    void setOnError(Owner handler)
    {
        keepErrorHandler(handler.release());
    }
    void setOnError(std::nullptr_t) { keepErrorHandler(nullptr); }

    /// Serves until a handler returns netServerTerminate or Stop is called; may then be called again. Without
    /// a request handler each connection is closed. An exception of a handler is reported on the standard
    /// error output and leaves Run.
    /// @throws netXException  netListeningFailed: the listening socket failed
    void Run();
    /// Ends Run as soon as the current handler returns, however many clients there are; the handler's stream
    /// blocks at most for the grace period from now on. A Run or Accept that begins later returns at once,
    /// once. Safe to call from any thread and in a signal handler, while the server lives.
    void Stop();
    /// Waits for one connection and returns its stream, which the caller owns; null when `timeout` seconds
    /// have passed, without limit for INFINITE, or Stop was called. Calls no handler.
    /// @throws netXException  netListeningFailed: the listening socket failed
    netSocketStream* Accept(double timeout);
    template<qelDuration D>
    netSocketStream* Accept(const D& limit)
    {
        return Accept(qelSeconds(limit));
    }
    /// A new event that is signaled while a connection waits to be accepted. The caller owns it, and frees it
    /// before the server.
    netEvent* AcceptEvent();

    // ---- call the handler; without one they return netServerNoDecision

    netServerLoopAction OnRequest(netSocketStream* stream);
    netServerLoopAction OnAsyncRequest(netSocketStream* stream, evtEvent* stop);
    netServerLoopAction OnIdle();

    /// The name it is registered under, or null.
    xstring getServerName() { return serverName; }
    int getPortN() { return portN; }
    /// Whether only programs of this machine can connect: it listens on a loopback interface.
    bool IsLoopbackOnly();
    /// Seconds that Run waits for a connection before it calls the idle handler; initially 0.01. With
    /// INFINITE, finished requests are joined only when the next connection arrives.
    double getTimeSlice() { return timeSlice; }
    void setTimeSlice(double seconds) { timeSlice = seconds; }
    template<qelDuration D>
    void setTimeSlice(const D& limit)
    {
        return setTimeSlice(qelSeconds(limit));
    }
    /// How many asynchronous requests may run at once; one more is refused as if no thread could be started.
    /// 0, the initial value: no limit.
    void setAsyncLimit(int most) { asyncLimit = most; }
    /// Seconds that a request has to finish after a stop request; after that each blocking operation of its
    /// stream fails with the state "timeout expired". Initially 5; INFINITE: the server waits without limit.
    double getGracePeriod() { return gracePeriod; }
    void setGracePeriod(double seconds) { gracePeriod = seconds; }
    template<qelDuration D>
    void setGracePeriod(const D& limit)
    {
        return setGracePeriod(qelSeconds(limit));
    }

    /// Whether the server publishes statistics, the values that docs/netlibsrc.md lists, in a monitor file that
    /// `qel top` shows; see <qel/monstatistics.h>. They are written at most ten times a second, by Run and
    /// Accept while no handler runs. Initially the environment decides: QELSTD_STATS=1. True begins them once,
    /// under `name`; null: the server's own. False after that has no effect. Returns false when there is no
    /// place for the file; the server works without.
    bool setStatistics(bool isOn, const char* name = nullptr);
    /// The path of that file; null while there is none.
    xstring getStatisticsFile();

protected:
    /// Takes ownership of a listening socket. `name`: the registered name, which the destructor removes; null
    /// for none.
    netBaseServer(btkAcceptSocket* listening, xstring name);

    /// Create for a class that derives from this one and has a constructor like it.
    template<class Server>
    static Server* CreateAs(const char* name, int port, const char* listenOn = nullptr)
    {
        return static_cast<Server*>(
            Make(name, port, listenOn, [](btkAcceptSocket*& listening) -> netBaseServer* {
                return new (pDefMemMgr) Server(std::exchange(listening, nullptr), xstring(nullptr));
            }));
    }

    /// Ends the service, once: closes the port, removes the name, signals the asynchronous requests to stop
    /// and waits until each has finished. The object must be intact for them until then, so the destructor of
    /// each deriving class calls this first.
    void EndService() noexcept;

    /// Registers the server with the name server of this machine until its end; null or xnullstr: does
    /// nothing. Once at most.
    /// @throws netXException  as Create
    void Register(const char* name);

    /// How long a new connection may be silent before it is closed. Until its first byte has arrived it
    /// delays no other connection. 0, the initial value: connections are served at once, as required by
    /// clients that wait for the server to send first.
    void SetSilentPatience(btkTimeval limit) { silentPatience = limit; }
    btkTimeval GetSilentPatience() const { return silentPatience; }
    /// How many connections may be silent at once, at least 1; initially 256. One more closes another: the
    /// oldest of the address that holds most places, but none younger than 0.1 seconds while another address
    /// has an older one.
    void SetSilentPlaces(int most);
    int GetSilentPlaces() const;

private:
    friend class netAsyncRequest;
    friend class netServer;

    template<class Owner>
    auto keep(Owner& handler)
    {
        keepHandler(handler.get());
        return handler.release();
    }
    void keepHandler(xobject* handler);
    void keepErrorHandler(qel::netErrorHandler* handler) noexcept;

    /// The waiting connections and the asynchronous requests.
    class Loop;
    /// Makes a server that takes the socket, which it sets to null.
    using Maker = netBaseServer* (*)(btkAcceptSocket*& listening);

    /// Screens a new connection before there is a stream. netServerContinue: it is closed and the loop
    /// continues; netServerTerminate: it is closed and Run returns; any other value: it is served.
    virtual netServerLoopAction PreprocessRequest(btkStreamSocket* socket);

    static netBaseServer* Make(const char* name, int port, const char* listenOn, Maker make);
    static Loop* MakeLoop(netBaseServer* server, btkAcceptSocket* listening);
    void Unregister() noexcept;

    netBaseServer_OnRequest_cb* onRequest = nullptr;
    netBaseServer_OnAsyncRequest_cb* onAsyncRequest = nullptr;
    netBaseServer_OnIdle_cb* onIdle = nullptr;
    int portN;
    xstring serverName;
    double timeSlice = 0.01;
    bool isRegistered;
    int asyncLimit = 0;
    double gracePeriod = 5;
    btkTimeval silentPatience;
    Loop* loop;
};
