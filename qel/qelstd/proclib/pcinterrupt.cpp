#include "pcinterrupt.h"

#include <atomic>

#include <qel/base/thrmutex.h>
#include <qel/platform/console.h>

#include "qeltable.h"

constinit qelClass pcInterruptEvent::rtti = {
    .name = "proclib::InterruptEvent",
    .parents = {QEL_PARENT(evtEvent)},
};

namespace {

// The state shared by all interrupt events. Changed under the libraries' mutex only; the console's handler
// reads the event.
struct
{
    std::atomic<btkHandle> event = -1;
    int living = 0;
} instance;

BOOL onConsole(DWORD type)
{
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT)
        return FALSE;
    Event_Set(instance.event.load());
    return TRUE;
}

// The last event restores the previous handlers. Call it with the mutex locked.
void leave()
{
    if (--instance.living > 0)
        return;
    SetConsoleCtrlHandler(&onConsole, FALSE);
    Event_Free(instance.event.exchange(-1));
}

} // namespace

pcInterruptEvent::pcInterruptEvent(btkHandle event) : evtEvent(new btkEVENTEvent(event))
{
}

pcInterruptEvent* pcInterruptEvent::Create()
{
    const thrLock guard(thrLibraryMutex());
    if (instance.event < 0) {
        instance.event = Event_Create(false);
        if (instance.event >= 0)
            SetConsoleCtrlHandler(&onConsole, TRUE);
    }
    if (instance.event < 0)
        return nullptr;
    ++instance.living;
    try {
        return new (pDefMemMgr) pcInterruptEvent(instance.event);
    } catch (...) {
        leave();
        throw;
    }
}

void pcInterruptEvent::Reset()
{
    const thrLock guard(thrLibraryMutex());
    if (instance.event >= 0)
        Event_Reset(instance.event);
}

pcInterruptEvent::~pcInterruptEvent()
{
    const thrLock guard(thrLibraryMutex());
    leave();
}
