#pragma once

#include <qel/evtevent.h>
#include <qel/netthread.h>
#include <qel/qelduration.h>
#include <qel/rshexception.h>
#include <qel/xstring.h>

class ioPipe;
class ioStream;
class netSocketStream;
class rshEvent;

/// A command that runs at the other end of a connection: its standard input is sent there, and its outputs
/// and exit code come back. A separate thread relays them and is meanwhile the only user of the connection.
/// While the command runs, the interrupt key does not terminate this program.
///
/// Used by the one thread that owns it; each of its three streams by one thread. Not counted: freed with
/// xdelete, which abandons a command that is still running.
///
///     const auto connection = qel::connect("rsh", 5s);
///     const auto list =
///         qel::own(rshProcess::Create(connection.get(), "ls -l", nullptr, nullptr, nullptr, nullptr, 0, 0));
///     list->getStdin()->Close(); // no input
///     list->getStdout()->setSerializer(ioSerializer::getAscii()); // as that of the standard output
///     CopyStream(ioStream::getStdout(), list->getStdout());       // until the command has exited
class QEL_API rshProcess : public netThread, public virtual xobject
{
    QEL_OBJECT(rshProcess); // "rshlib::Process"
    QEL_NOT_COUNTED;

public:
    /// Runs `command` at the other end of `s`, in the directory `workDir` of that machine (null or empty:
    /// where the server runs it), by the user's shell there when `useShell` is 1. The caller keeps ownership
    /// of the streams; the thread uses them until it exits. A null stream is replaced by a pipe, see
    /// getStdin. The last argument is not used. Null when the thread cannot be started. The caller owns the new
    /// object.
    /// @throws rshXProcess  the other end could not start the command
    /// @throws ioXStream    the connection failed, or the answer limit has passed
    static rshProcess* Create(netSocketStream* s, const char* command, const char* workDir, ioStream* in,
                              ioStream* out, ioStream* err, unsigned char useShell, unsigned char reserved);
    ~rshProcess() override;

    /// The longest time that Create takes, in seconds, from the first byte of the request to the complete
    /// reply: initially 10, INFINITE without limit. Applies to the whole process. Safe to call from any
    /// thread.
    static void setAnswerLimit(double seconds);
    template<qelDuration D>
    static void setAnswerLimit(const D& limit)
    {
        return setAnswerLimit(qelSeconds(limit));
    }

    /// The stream to write the standard input to, and those to read the outputs from; they end with the
    /// command. Null for a stream that the caller supplied. This object owns them. A command blocks when its
    /// output is not read.
    ioStream* getStdin();
    ioStream* getStdout();
    ioStream* getStderr();

    /// Terminates the command, or interrupts it as the interrupt key does, with the processes it started.
    /// Neither arrives while unread input of the command fills all buffers on the way. Terminate then
    /// abandons the command after two seconds: there is no exit code, and the server terminates it when `s`
    /// is closed.
    void Terminate();
    void Interrupt();
    /// The exit code once the thread has exited; xnullint before, and when none arrived.
    int GetExitCode();
    unsigned char IsRunning();
    /// A new event that is signaled when the thread has exited. The caller owns it.
    rshEvent* ExitEvent();

protected:
    /// Takes ownership of the pipes; each is null when the caller supplied the stream.
    rshProcess(netSocketStream* s, ioPipe* inPipe, ioPipe* outPipe, ioPipe* errPipe, ioStream* in,
               ioStream* out, ioStream* err);
    int OnStart() override;
    void OnClose() override;
    void AtFork(bool parentSide) override;

private:
    void CheckStarted();
    void Signal(int tag);
    void CloseOwnersEnds();
    void CloseThreadsEnds();

    netSocketStream* connection;
    ioPipe* stdinPipe;
    ioPipe* stdoutPipe;
    ioPipe* stderrPipe;
    ioStream* input;
    ioStream* output;
    ioStream* errors;
};

/// The event of a remote command's exit.
///
///     int exitCodeOf(rshProcess& command)
///     {
///         const auto exited = qel::own(command.ExitEvent());
///         return exited->Wait(60s) ? exited->getProcess()->GetExitCode() : -1;
///     }
class QEL_API rshEvent : public evtEvent
{
    QEL_OBJECT(rshEvent); // "rshlib::Event"

public:
    /// Not counted; not to be used once it has been freed.
    rshProcess* getProcess() { return process; }

private:
    friend class rshProcess;
    rshEvent(rshProcess* owner, btkBaseEvent* exit) : evtEvent(exit), process(owner) {}

    rshProcess* process;
};

/// A connection to a remote shell server, with its user and host. Not counted: freed with xdelete, which
/// frees the connection's stream.
///
///     class Connector : public rshConnection
///     {
///     public:
///         explicit Connector(const char* host)
///             : rshConnection(netServer::Connect(xrchandle(netAddress::Create("rsh", host)).get(), 5s),
///                             sysGetCurUserName().CastToCString(), host)
///         {
///         }
///     };
class QEL_API rshConnection : public virtual xobject
{
    QEL_OBJECT(rshConnection); // "rshlib::Connection"
    QEL_NOT_COUNTED;

public:
    /// Not implemented: ends the process with the fatal report. A connector derives its own class and
    /// supplies the stream.
    static rshConnection* Create(const char* user, const char* host);
    ~rshConnection() override;
    rshConnection(const rshConnection&) = delete;
    rshConnection& operator=(const rshConnection&) = delete;

    /// rshProcess::Create over this connection: the caller owns the new object.
    rshProcess* CreateProcessA(const char* command, const char* workDir, ioStream* in, ioStream* out,
                               ioStream* err, unsigned char useShell);
    xstring getUser() { return User; }
    xstring getHost() { return Host; }

protected:
    /// Takes ownership of `s`.
    rshConnection(netSocketStream* s, const char* user, const char* host);

private:
    netSocketStream* stream;
    xstring User;
    xstring Host;
};
