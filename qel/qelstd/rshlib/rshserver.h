#pragma once

#include <qel/evtevent.h>
#include <qel/netthread.h>
#include <qel/xstring.h>

class netSocketStream;
class rshServerEvent;

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
