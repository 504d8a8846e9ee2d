#pragma once

#include <qel/evtevent.h>
#include <qel/netthread.h>
#include <qel/rshexception.h>
#include <qel/xstring.h>

class ioPipe;
class ioStream;
class netSocketStream;
class rshEvent;

/// A command that runs at the other end of a connection: what is written to its standard input travels there,
/// and its outputs and its exit code come back. A thread of its own does that, and alone uses the connection
/// meanwhile. While it runs, the interrupt key does not end this program.
///
/// Used by the one thread that owns it; each of its three streams by one thread. Not counted: freed with
/// xdelete, which gives a command up that runs still.
class QEL_API rshProcess : public netThread, public virtual xobject
{
    QEL_OBJECT(rshProcess); // "rshlib::Process"

public:
    /// Has `command` run at the other end of `s`, in the directory `workDir` of that machine (null or empty:
    /// where the server runs it), by the user's shell there when `useShell` is 1. The streams stay the
    /// caller's and are used by the thread only until its end. For each that is null a pipe is made, see
    /// getStdin. The last argument is not used. Null when the thread can not be started.
    /// @throws rshXProcess  the other end could not start the command
    /// @throws ioXStream    the connection failed, or the answer limit has passed
    static rshProcess* Create(netSocketStream* s, const char* command, const char* workDir, ioStream* in,
                              ioStream* out, ioStream* err, unsigned char useShell, unsigned char reserved);
    ~rshProcess() override;

    /// How many seconds Create takes at most, from the first byte of the request to the whole reply: 10 at
    /// first, INFINITE without limit. Holds for the whole process. Safe to call from any thread.
    static void setAnswerLimit(double seconds);

    /// Where the standard input is written to, and where the outputs are read from; they end with the
    /// command. Null for a stream that the caller gave. They stay the object's. Who does not read an output
    /// that there is stops the command.
    ioStream* getStdin();
    ioStream* getStdout();
    ioStream* getStderr();

    /// Has the command ended, or interrupted as by the interrupt key, with what it started. Neither gets
    /// through while input that the command does not read fills all buffers on the way. Terminate then gives
    /// the command up after two seconds: there is no exit code, and the server ends it when `s` is closed.
    void Terminate();
    void Interrupt();
    /// The exit code once the thread has ended; xnullint before, and when none arrived.
    int GetExitCode();
    unsigned char IsRunning();
    /// A new event that is signaled when the thread has ended. The caller owns it.
    rshEvent* ExitEvent();

protected:
    /// Takes ownership of the pipes; each is null when the stream beside it is the caller's.
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

/// The end of a remote command.
class QEL_API rshEvent : public evtEvent
{
    QEL_OBJECT(rshEvent); // "rshlib::Event"

public:
    /// Not counted, and not to be used when it has been freed.
    rshProcess* getProcess() { return process; }

private:
    friend class rshProcess;
    rshEvent(rshProcess* owner, btkBaseEvent* exit) : evtEvent(exit), process(owner) {}

    rshProcess* process;
};

/// A connection to a remote shell server, with the user and the host it was made for. Not counted: freed with
/// xdelete, which frees the connection's stream.
class QEL_API rshConnection : public virtual xobject
{
    QEL_OBJECT(rshConnection); // "rshlib::Connection"

public:
    /// Not implemented: ends the process with the fatal report. A connector derives its class and brings the
    /// stream.
    static rshConnection* Create(const char* user, const char* host);
    ~rshConnection() override;
    rshConnection(const rshConnection&) = delete;
    rshConnection& operator=(const rshConnection&) = delete;

    /// rshProcess::Create over this connection.
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
