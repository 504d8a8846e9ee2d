#pragma once

#include <qel/base/btkfd.h>
#include <qel/qelexport.h>

class btkBaseEvent;
class ioPipe;
class ioStream;

/// A worker thread with hooks, an exit event and an exit code. Created, started, running, ended, collected,
/// closed: each operation is called by the one thread that owns the object, OnStart by the new thread. The
/// object must outlive its thread's body: delete it only once the exit event is signaled or the exit code is
/// collected.
///
/// A class that overrides OnClose, or that OnStart needs, calls Close in its destructor.
class QEL_API netBaseThread
{
public:
    netBaseThread() = default;
    enum ExitEvents { WithoutExitEvent };
    /// A thread that nobody waits for but by its exit code, which saves a descriptor: GetExitEvent is not
    /// called.
    explicit netBaseThread(ExitEvents) : hasExitEvent(false) {}
    netBaseThread(const netBaseThread&) = delete;
    netBaseThread& operator=(const netBaseThread&) = delete;
    virtual ~netBaseThread();

    /// Starts the thread. False when OnPreStart refuses, when the host has no thread left, and when the
    /// thread was started and not closed since.
    bool Start();
    /// Gives up the thread, whose exit code is gone unless it was collected. Closing twice, or what was never
    /// started, does nothing.
    void Close();
    /// A new event that is signaled once the thread has ended. The caller owns it; it may outlive the object.
    btkBaseEvent* GetExitEvent();
    /// Whether the body has ended; true also for a thread that is not started.
    bool IsExited();
    /// Waits for the thread unless its exit code has been collected, and answers the code. 0 when it was
    /// never started.
    int WaitExitCode();

protected:
    /// Before the launch, in the owner's thread. False: the thread is not started.
    virtual bool OnPreStart() { return true; }
    /// The thread's body; its result is the exit code. Must not throw. It may run before OnPostStart does.
    virtual int OnStart() = 0;
    /// After the launch, in the owner's thread.
    virtual void OnPostStart() {}
    /// For hosts whose threads are processes, called on both sides; never called on this host.
    virtual void AtFork(bool parentSide);
    /// Frees the thread handle unless the exit code was collected.
    virtual void OnClose();

    bool IsCollected() const { return collected; }
    /// The handle that becomes readable when the thread ends; valid until the exit code is collected or the
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
class QEL_API netThread : public netBaseThread
{
public:
    using netBaseThread::netBaseThread;
    ~netThread() override;

    /// The writing end of the control pipe, for the owner; null while there is no pipe. Stays the thread's.
    ioStream* ControlStream();
    /// As WaitExitCode.
    int GetExitCode();

protected:
    /// The reading end, for the body: its input event is signaled when the owner has written something. Null
    /// while there is no pipe. Stays the thread's.
    ioStream* SignalStream();
    /// The handle of that end, -1 while there is no pipe.
    btkHandle GetSignalHandle();

    bool OnPreStart() override;
    void OnPostStart() override;
    void AtFork(bool parentSide) override;
    void OnClose() override;

private:
    // Where threads are processes the end has to be signaled before the code can be asked for.
    bool IsExitSignaled() const { return true; }
    void DeletePipe();

    ioPipe* controlPipe = nullptr;
};
