#include "thrthread.h"

#include <atomic>
#include <memory>
#include <new>
#include <pthread.h>

struct btkThreadEnd
{
    btkFd exited; // an event, set after the rest
    int code = 0;
    std::atomic<bool> hasEnded = false;

    bool IsOver() const { return hasEnded.load(std::memory_order_acquire); }
};

namespace {

struct Handle
{
    std::shared_ptr<btkThreadEnd> thread;
    pthread_t id = {};
    bool joined = false;
};

struct Launch
{
    std::shared_ptr<btkThreadEnd> thread;
    int (*start)(void*);
    void* arg;
};

void* run(void* given)
{
    // Also reported for a thread that calls pthread_exit or is cancelled: its owner waits for it.
    struct EndNote
    {
        std::unique_ptr<Launch> launch;
        ~EndNote()
        {
            // Event_Set would otherwise be a cancellation point.
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
            launch->thread->hasEnded.store(true, std::memory_order_release);
            if (launch->thread->exited)
                Event_Set(launch->thread->exited.Get());
        }
    };
    const EndNote note{std::unique_ptr<Launch>(static_cast<Launch*>(given))};
    note.launch->thread->code = note.launch->start(note.launch->arg);
    return nullptr;
}

Handle& handleOf(void* thread)
{
    return *static_cast<Handle*>(thread);
}

void* startThread(int (*start)(void*), void* arg, btkFd exited)
{
    auto handle = std::make_unique<Handle>();
    handle->thread = std::make_shared<btkThreadEnd>();
    handle->thread->exited = std::move(exited);
    auto launch = std::make_unique<Launch>(Launch{handle->thread, start, arg});
    if (pthread_create(&handle->id, nullptr, run, launch.get()) != 0)
        return StrictThread_Refused;
    // Owned by the thread now.
    [[maybe_unused]] const auto* const taken = launch.release();
    return handle.release();
}

} // namespace

void* StrictThread_Launch(int (*start)(void*), void* arg, void (*)(void*, bool))
try {
    btkFd exited(Event_Create(false));
    return exited ? startThread(start, arg, std::move(exited)) : StrictThread_Refused;
} catch (const std::bad_alloc&) {
    return StrictThread_Refused;
}

void* StrictThread_LaunchWithoutEvent(int (*start)(void*), void* arg)
try {
    return startThread(start, arg, {});
} catch (const std::bad_alloc&) {
    return StrictThread_Refused;
}

bool StrictThread_CheckRunning(void* thread)
{
    return !handleOf(thread).thread->IsOver();
}

void StrictThread_Wait(void* thread, int* code)
{
    Handle& handle = handleOf(thread);
    if (!handle.joined)
        handle.joined = pthread_join(handle.id, nullptr) == 0;
    *code = handle.thread->code;
}

void StrictThread_Free(void* thread)
{
    const std::unique_ptr<Handle> handle(static_cast<Handle*>(thread));
    if (handle->joined)
        return;
    // A thread that has reported its end exits at once: join it, so that none of it is left on return.
    if (StrictThread_CheckRunning(thread))
        pthread_detach(handle->id);
    else
        pthread_join(handle->id, nullptr);
}

btkHandle StrictThread_GetExitHandle(void* thread)
{
    return handleOf(thread).thread->exited.Get();
}

btkPROCESSEvent::btkPROCESSEvent(void* handle)
    : btkBaseEvent(StrictThread_GetExitHandle(handle), btkReadable, true), thread(handleOf(handle).thread)
{
}

btkPROCESSEvent::btkPROCESSEvent(btkHandle exit) : btkBaseEvent(-1, btkReadable, true)
{
    btkFd borrowed(exit);
    own = borrowed.Duplicate();
    borrowed.Release();
    GetWatch().handle = own.Get();
}

btkBaseEvent::State btkPROCESSEvent::OnAsk()
{
    // Also on when no descriptor was left for a process: better not to wait.
    return (thread != nullptr ? thread->IsOver() : GetWatch().handle < 0) ? On : Ask;
}

bool btkPROCESSEvent::OnPolled(btkReadiness ready)
{
    return thread != nullptr ? thread->IsOver() : ready != btkNotReady;
}
