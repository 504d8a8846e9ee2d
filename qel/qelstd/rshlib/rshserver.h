#pragma once

#include <initializer_list>

#include <qel/evtevent.h>
#include <qel/netthread.h>
#include <qel/qelduration.h>
#include <qel/xstring.h>

class netSocketStream;
class rshServerEvent;

/// How a command was served, for the log of a server.
struct rshOutcome
{
    /// The user of the client on this machine, by number; -1: not known.
    long user = -1;
    /// Whether the command ran, and its exit code; null (xnullint) when it did not exit in time.
    bool isStarted = false;
    int exitCode = xnullint;
};

/// A request for a command, as received over a connection. A client may send it slowly or never complete it;
/// servers that limit concurrent commands reserve a place only after Read has succeeded. Used by one thread
/// at a time.
///
///     void serve(netSocketStream* client)
///     {
///         rshRequest request;
///         if (!request.Read(client, 5, {}))
///             return;
///         if (request.isForShell())
///             rshRequest::Refuse(client, "no shell here");
///         else
///             request.Execute(client, "/srv", nullptr);
///     }
class QEL_API rshRequest
{
public:
    /// Reads the request from `s`. False when it is not whole after `limit` seconds (INFINITE: without
    /// limit), when one of `stops` (each may be null) is signaled, when the connection fails and when the
    /// data is not a valid request.
    bool Read(netSocketStream* s, double limit, std::initializer_list<btkEvent*> stops);
    /// Runs the command and relays, as rshServer::Execute.
    unsigned char Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent) const;
    /// The same, and stores how it went in `outcome`.
    unsigned char Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent,
                          rshOutcome& outcome) const;
    /// The command line as the client has sent it, with the arguments, and whether the shell is to run it.
    xstring getCommand() const { return command; }
    bool isForShell() const { return useShell != 0; }
    /// Replies on `s` that the command is not run, and why: rshProcess::Create throws rshXProcess with that
    /// text on the client.
    static void Refuse(netSocketStream* s, const char* why);

private:
    friend class rshSession;

    xstring command;
    xstring workDir;
    int useShell = 0;
};

/// The serving end of the remote shell: reads one request from a connection, runs the command, relays its
/// input and its outputs and reports its exit code. The peer runs commands with the rights of this process;
/// this library does no authorization.
///
/// The command leads its own process group. The group is terminated when the client requests it, when the
/// connection fails and when Terminate is called. Used by the one thread that owns it. Not counted: freed
/// with xdelete, which stops the server and waits for it.
///
///     void serve(netSocketStream& client, evtEvent& stop)
///     {
///         rshServer::Execute(&client, "/srv", &stop); // in this thread, until the command has exited
///     }
class QEL_API rshServer : public netThread, public virtual xobject
{
    QEL_OBJECT(rshServer); // "rshlib::Server"
    QEL_NOT_COUNTED;

public:
    /// Serves one request on `s` in a separate thread. The caller keeps ownership of `s` and must not use it
    /// before the exit event is signaled. A relative working directory is relative to `baseDir`; null or
    /// empty: to the current directory. The last argument is not used. Null when the thread cannot be
    /// started. The caller owns the new object.
    static rshServer* Create(netSocketStream* s, const char* baseDir, unsigned char reserved);
    ~rshServer() override;

    /// Stops the server: terminates the command; the server exits once the client has received the remaining
    /// output, at the latest after half a second.
    void Terminate();
    /// A new event that is signaled when the server has exited. The caller owns it.
    rshServerEvent* ExitEvent();

    /// Serves one request on `s` in the calling thread. `stopEvent`, which may be null, stops it as Terminate
    /// does. False when the command could not be started; the client has then been notified, unless the
    /// connection failed.
    static unsigned char Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent);

    /// The longest time, in seconds, that a client may neither receive nor send after its command has exited;
    /// then the connection is abandoned and the remaining output is lost. Initially 10, INFINITE without
    /// limit. Applies to the whole process. Safe to call from any thread.
    static void setPatience(double seconds);
    template<qelDuration D>
    static void setPatience(const D& limit)
    {
        return setPatience(qelSeconds(limit));
    }

protected:
    rshServer(netSocketStream* s, const char* baseDir);
    int OnStart() override;

private:
    void CheckStarted();

    netSocketStream* connection;
    xstring baseDirectory;
    bool isTold = false;
};

/// The event of a server's exit.
///
///     void serve(netSocketStream* client)
///     {
///         const auto server = qel::own(rshServer::Create(client, nullptr, 0));
///         const auto exited = qel::own(server->ExitEvent());
///         if (!exited->Wait(3600))
///             exited->getServer()->Terminate();
///     }
class QEL_API rshServerEvent : public evtEvent
{
    QEL_OBJECT(rshServerEvent); // "rshlib::ServerEvent"

public:
    /// Not counted; not to be used once it has been freed.
    rshServer* getServer() { return server; }

private:
    friend class rshServer;
    rshServerEvent(rshServer* owner, btkBaseEvent* exit) : evtEvent(exit), server(owner) {}

    rshServer* server;
};
