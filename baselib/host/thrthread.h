#pragma once

#include <memory>

#include <qel/base/btkevent.h>

// Threads with an exit event and an exit code. A handle is used by one thread at a time.

/// What StrictThread_Launch answers when the host starts no thread.
inline void* const StrictThread_Refused = reinterpret_cast<void*>(-1);

/// Starts a thread that runs `start(arg)`, which must not throw, and whose result is the exit code. The
/// handle is freed with StrictThread_Free; StrictThread_Refused when the host has no thread, descriptor or
/// memory left. `fork` is for hosts whose threads are processes: never called on this one.
BASE_API void* StrictThread_Launch(int (*start)(void* arg), void* arg, void (*fork)(void* arg, bool parent));
/// The same for a thread whose end is asked for or waited for with the functions below only: it takes no
/// descriptor, and no event is made of it.
BASE_API void* StrictThread_LaunchWithoutEvent(int (*start)(void* arg), void* arg);
/// Whether the thread still runs. False as soon as its exit event is on; what the thread has written before
/// is seen by the caller then.
BASE_API bool StrictThread_CheckRunning(void* thread);
/// Waits for the end of the thread and stores its exit code. May be repeated.
BASE_API void StrictThread_Wait(void* thread, int* code);
/// Frees the handle. A thread that still runs goes on by itself.
BASE_API void StrictThread_Free(void* thread);
/// The handle of the thread's exit event; valid until the thread is freed. Readable once the thread has
/// ended.
BASE_API btkHandle StrictThread_GetExitHandle(void* thread);

/// What a thread's handle, its events and the thread itself share.
struct btkThreadEnd;

/// On once a thread or a process has ended, and from then on. The thread or process handle may be freed
/// before. Who finds it on for a thread sees all that the thread has written.
class BASE_API btkPROCESSEvent : public btkBaseEvent
{
public:
    /// Of a thread of StrictThread_Launch. Takes no descriptor.
    explicit btkPROCESSEvent(void* thread);
    /// Of whatever `exit` stands for: a descriptor that becomes readable at the end, like a process's. Takes
    /// a duplicate.
    explicit btkPROCESSEvent(btkHandle exit);

protected:
    State OnAsk() override;
    bool OnPolled(short ready) override;

private:
    btkFd own;
    std::shared_ptr<const btkThreadEnd> thread;
};
