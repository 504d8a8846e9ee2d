#pragma once

#include <qel/base/btkfd.h>
#include <qel/qelexport.h>

class btkBaseEvent;
class ioPipe;
class ioStream;

/// A worker thread with hooks, an exit event and an exit code. States: created, started, running, exited,
/// joined, closed. The one thread that owns the object calls each operation; the new thread calls OnStart.
/// The object must outlive its thread's body: delete it only once the exit event is signaled or the exit code
/// is collected.
///
/// A class that overrides OnClose, or that OnStart needs, calls Close in its destructor.
///
///     class Sum : public netBaseThread
///     {
///     public:
///         ~Sum() override { Close(); }
///
///     private:
///         int OnStart() override { return 40 + 2; }
///     };
///
///     Sum sum;
///     if (sum.Start())
///         std::cout << sum.WaitExitCode() << '\n';
class QEL_API netBaseThread
{
public:
    netBaseThread() = default;
    enum ExitEvents { WithoutExitEvent };
    /// A thread that is only waited for by its exit code, which saves a descriptor: GetExitEvent must not be
    /// called.
    explicit netBaseThread(ExitEvents) : hasExitEvent(false) {}
    netBaseThread(const netBaseThread&) = delete;
    netBaseThread& operator=(const netBaseThread&) = delete;
    virtual ~netBaseThread();

    /// Starts the thread. False when OnPreStart refuses, when the operating system has no thread left, and
    /// when the thread was started and not closed since.
    bool Start();
    /// Detaches the thread; its exit code is lost unless it was collected. Closing twice, or before a start,
    /// does nothing.
    void Close();
    /// A new event that is signaled once the thread has exited. The caller owns it; it may outlive the
    /// object.
    btkBaseEvent* GetExitEvent();
    /// Whether the body has returned; true also for a thread that is not started.
    bool IsExited();
    /// Waits for the thread unless its exit code has been collected, and returns the code. 0 when it was
    /// never started.
    int WaitExitCode();

protected:
    /// Before the launch, in the owner's thread. False: the thread is not started.
    virtual bool OnPreStart() { return true; }
    /// The thread's body; its result is the exit code. Must not throw. It may run before OnPostStart does.
    virtual int OnStart() = 0;
    /// After the launch, in the owner's thread.
    virtual void OnPostStart() {}
    /// For operating systems whose threads are processes, called on both sides; never called on Linux.
    virtual void AtFork(bool parentSide);
    /// Frees the thread handle unless the exit code was collected.
    virtual void OnClose();

    /// Whether the exit code is known.
    bool IsCollected() const { return collected; }
    /// The handle that becomes readable when the thread exits; valid until the exit code is collected or the
    /// thread closed.
    btkHandle GetExitHandle() const;

private:
    static int Starter(void* self);
    static void Forker(void* self, bool parentSide);

    void* handle = nullptr;
    bool started = false;   // between a successful Start and Close
    bool collected = false; // the exit code is known and the handle freed
    int exitCode = 0;
    bool hasExitEvent = true;
};

/// A worker thread with a control pipe, through which its owner signals to it.
///
///     class Worker : public netThread
///     {
///         int OnStart() override { return SignalStream()->ReadInt(); } // waits for its owner
///     };
///
///     Worker worker;
///     if (worker.Start()) {
///         worker.ControlStream()->WriteInt(42);
///         std::cout << worker.GetExitCode() << '\n';
///     }
class QEL_API netThread : public netBaseThread
{
public:
    using netBaseThread::netBaseThread;
    ~netThread() override;

    /// The writing end of the control pipe, for the owner; null while there is no pipe. The thread owns it.
    ioStream* ControlStream();
    /// As WaitExitCode.
    int GetExitCode();

protected:
    /// The reading end, for the body: its input event is signaled when the owner has written something. Null
    /// while there is no pipe. The thread owns it.
    ioStream* SignalStream();
    /// The handle of that end, -1 while there is no pipe.
    btkHandle GetSignalHandle();

    bool OnPreStart() override;
    void OnPostStart() override;
    void AtFork(bool parentSide) override;
    void OnClose() override;

private:
    // Where threads are processes, the exit must be signaled before the code can be read.
    bool IsExitSignaled() const { return true; }
    void DeletePipe();

    ioPipe* controlPipe = nullptr;
};
