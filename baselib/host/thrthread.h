#pragma once

#include <memory>

#include <qel/base/btkevent.h>

// Threads with an exit event and an exit code. A handle is used by one thread at a time.

/// Returned by StrictThread_Launch when no thread can be started.
inline void* const StrictThread_Refused = reinterpret_cast<void*>(-1);

/// Starts a thread that runs `start(arg)`, which must not throw, and whose result is the exit code. The
/// handle is freed with StrictThread_Free; StrictThread_Refused when no thread, descriptor or memory is left.
/// `fork` is for systems whose threads are processes: never called on Linux.
BASE_API void* StrictThread_Launch(int (*start)(void* arg), void* arg, void (*fork)(void* arg, bool parent));
/// The same for a thread that is only checked or waited for with the functions below: it uses no descriptor,
/// and no event can be created for it.
BASE_API void* StrictThread_LaunchWithoutEvent(int (*start)(void* arg), void* arg);
/// Whether the thread is still running. False as soon as its exit event is on; everything that the thread has
/// written is visible to the caller then.
BASE_API bool StrictThread_CheckRunning(void* thread);
/// Waits until the thread exits and stores its exit code. May be repeated.
BASE_API void StrictThread_Wait(void* thread, int* code);
/// Frees the handle. A running thread continues detached.
BASE_API void StrictThread_Free(void* thread);
/// Returns the handle of the thread's exit event; valid until the thread is freed. Readable once the thread
/// has exited.
BASE_API btkHandle StrictThread_GetExitHandle(void* thread);

/// State shared by a thread's handle, its events and the thread itself.
struct btkThreadEnd;

/// On once a thread or a process has exited, and from then on. The thread or process handle may be freed
/// before. When it is on for a thread, everything that the thread has written is visible.
class BASE_API btkPROCESSEvent : public btkBaseEvent
{
public:
    /// For a thread of StrictThread_Launch. Uses no descriptor.
    explicit btkPROCESSEvent(void* thread);
    /// For the object behind `exit`: a descriptor that becomes readable at the end, such as a process's.
    /// Duplicates it.
    explicit btkPROCESSEvent(btkHandle exit);

protected:
    State OnAsk() override;
    bool OnPolled(btkReadiness ready) override;

private:
    btkFd own;
    std::shared_ptr<const btkThreadEnd> thread;
};
