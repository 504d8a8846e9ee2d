#pragma once

#include <initializer_list>
#include <string>

#include <qel/evtevent.h>
#include <qel/netthread.h>
#include <qel/xstring.h>

class netSocketStream;
class rshServerEvent;

/// A request for a command, as it comes over a connection: a client may take its time for that, or never send
/// all of it. For servers that give out places for commands once they know that there is one. Used by one
/// thread at a time.
class QEL_API rshRequest
{
public:
    /// Reads the request from `s`. False when it is not whole after `limit` seconds (INFINITE: without
    /// limit), when one of `stops` is signaled, of which each may be null, when the connection fails and when
    /// what comes is no request.
    bool Read(netSocketStream* s, double limit, std::initializer_list<btkEvent*> stops);
    /// Runs the command and relays, as rshServer::Execute.
    unsigned char Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent) const;
    /// Replies on `s` that the command is not run, and why: rshProcess::Create throws rshXProcess with the
    /// text there.
    static void Refuse(netSocketStream* s, const char* why);

private:
    friend class rshSession;

    std::string command;
    std::string workDir;
    int useShell = 0;
};

/// The serving end of the remote shell: reads one request from a connection, runs the command, relays its
/// input and its outputs and reports its exit code. Whoever holds the other end runs commands with the rights
/// of this process; this library asks for no authorization.
///
/// The command leads a process group of its own. It is terminated, with the group, when the client asks for
/// it, when the connection fails and when the server is told to stop. Used by the one thread that owns it.
/// Not counted: freed with xdelete, which stops the server and waits for it.
class QEL_API rshServer : public netThread, public virtual xobject
{
    QEL_OBJECT(rshServer); // "rshlib::Server"

public:
    /// Serves one request on `s`, which stays the caller's and is not to be used before the exit event is
    /// signaled, in a thread of its own. `baseDir` is where a relative working directory begins; null or
    /// empty: in the current one. The last argument is not used. Null when the thread can not be started.
    static rshServer* Create(netSocketStream* s, const char* baseDir, unsigned char reserved);
    ~rshServer() override;

    /// Tells the server to stop: the command is terminated, and the server ends once the client has taken the
    /// rest, at the latest after half a second.
    void Terminate();
    /// A new event that is signaled when the server has ended. The caller owns it.
    rshServerEvent* ExitEvent();

    /// Serves one request on `s` in the calling thread. `stopEvent`, which may be null, tells it to stop as
    /// Terminate does. False when the command could not be started; the client has been told then, unless the
    /// connection failed.
    static unsigned char Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent);

    /// How many seconds a client may take nothing and send nothing once its command has ended, before the
    /// connection is given up and what it has not taken is lost: 10 at first, INFINITE without limit. Holds
    /// for the whole process. Safe to call from any thread.
    static void setPatience(double seconds);

protected:
    rshServer(netSocketStream* s, const char* baseDir);
    int OnStart() override;

private:
    void CheckStarted();

    netSocketStream* connection;
    xstring baseDirectory;
    bool isTold = false;
};

/// The end of a server.
class QEL_API rshServerEvent : public evtEvent
{
    QEL_OBJECT(rshServerEvent); // "rshlib::ServerEvent"

public:
    /// Not counted, and not to be used when it has been freed.
    rshServer* getServer() { return server; }

private:
    friend class rshServer;
    rshServerEvent(rshServer* owner, btkBaseEvent* exit) : evtEvent(exit), server(owner) {}

    rshServer* server;
};
