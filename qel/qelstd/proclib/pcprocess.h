#pragma once

#include <qel/evtevent.h>
#include <qel/pcexception.h>
#include <qel/pcinterrupt.h>

class ioStream;
class pcEvent;
struct btkProcess;

/// The state of a process.
enum pcProcessStatus : int { pcUninit, pcRunning, pcExited };
QEL_ENUM(pcProcessStatus); // "proclib::ProcessStatus"

/// A process of this machine, open until Close, or until GetExitCode has taken the exit code of one that this
/// library started. After that only its id, the exit code and the status (pcUninit) are available, and the
/// other operations do nothing. Used by one thread at a time. Not counted: freed with xdelete, which closes
/// it.
///
///     const auto list = qel::own(pcProcess::Create("ls -l", "/tmp", nullptr, nullptr, nullptr, 0, 0));
///     const auto exited = qel::own(list->ExitEvent());
///     if (exited->Wait(10s))
///         std::cout << list->GetExitCode() << '\n';
///     else
///         list->Terminate();
class QEL_API pcProcess : public virtual xobject
{
    QEL_OBJECT(pcProcess); // "proclib::Process"
    QEL_NOT_COUNTED;

public:
    /// Starts the program that `command` names, found by PATH, in the directory `workDir`, in native or
    /// remote form (null, xnullstr or empty: the caller's). The command line is split like a shell's words;
    /// see btkcmdline.h. The streams become its standard streams and are closed here, once it runs; for a
    /// null one it inherits the caller's. The child continues at the position of each stream: data written
    /// before are flushed first, and it reads the data that this process would read next. For a child that
    /// inherits the standard input, bytes that getStdin has read ahead are returned if the input is seekable;
    /// those from a terminal or pipe stay in this process. `ownGroup`: Interrupt and Terminate reach the
    /// programs that it starts, too, and the console's keys do not reach it. `detached` has no effect on
    /// Linux.
    /// The caller owns the new object.
    /// @throws pcXCreate  pcCreateCode::system: it cannot be started; badIn, badOut, badErr: a stream cannot be
    ///                    passed, also because data written to it cannot be flushed, or because bytes were read
    ///                    ahead from a pipe or a connection; the streams stay open then
    static pcProcess* Create(const char* command, const char* workDir, ioStream* in, ioStream* out,
                             ioStream* err, unsigned char ownGroup, unsigned char detached);
    /// A process that runs, or has exited and was not waited for yet. Its exit code is left to its parent. The
    /// caller owns the new object.
    /// @throws pcXCreate  pcCreateCode::system: no such process
    static pcProcess* Open(int id);
    ~pcProcess() override;
    pcProcess(const pcProcess&) = delete;
    pcProcess& operator=(const pcProcess&) = delete;

    /// Takes the exit code of a process that has exited; a running one continues. Does not wait.
    void Close();
    /// Sends the signal of the interrupt key.
    void Interrupt();
    /// Kills the process.
    void Terminate();
    /// Takes the exit code of a process that has exited: its exit status, or 128 plus the number of the
    /// signal that killed it. xnullint while it runs, and for a process that was opened. Does not wait: see
    /// ExitEvent.
    int GetExitCode();
    unsigned char IsRunning();
    pcProcessStatus GetStatus();
    /// A new event that is signaled when the process has exited; null when it is closed or was opened by its
    /// id. The caller owns it, and it stays signaled when the process is closed.
    pcEvent* ExitEvent();
    virtual int getId();

protected:
    /// Takes ownership of `process`.
    pcProcess(btkProcess* process, unsigned long id, bool canWait);

private:
    static btkHandle GetHandle(ioStream* stream, pcCreateError code);

    btkProcess* handle;
    unsigned long id;
    int exitCode = xnullint;
    bool terminated = false;
    bool canWait;
    bool closed = false;
};

/// The exit of a process.
///
///     const auto sleeper = qel::own(pcProcess::Create("sleep 1", nullptr, nullptr, nullptr, nullptr, 0, 0));
///     const auto exited = qel::own(sleeper->ExitEvent());
///     qel::loop loop;
///     loop.on(*exited, [&] { std::cout << exited->getProcess()->GetExitCode() << '\n', loop.stop(); });
///     loop.run();
class QEL_API pcEvent : public evtEvent
{
    QEL_OBJECT(pcEvent); // "proclib::Event"

public:
    /// Not counted; must not be used after it has been freed.
    pcProcess* getProcess() { return process; }

private:
    friend class pcProcess;
    pcEvent(pcProcess* owner, btkHandle exit);

    pcProcess* process;
};

/// Whether the process runs, has exited and was not waited for yet, or (pcUninit) does not exist.
QEL_API pcProcessStatus pcGetProcessStatus(int id);

/// The command that runs a command line by the user's shell when the line, in double quotes, follows it:
/// "$SHELL -c", or "$COMSPEC /c". Null when neither variable is set.
QEL_API xstring pcGetShellCommand();
