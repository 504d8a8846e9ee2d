#include "evtevent.h"

#include "evteventarray.h"
#include "qeltable.h"

constinit qelClass evtEvent::rtti = {
    .name = "eventlib::Event",
    .attrs = {QEL_ATTR(IsSignaled)},
};

constinit qelClass evtEventArray::rtti = {
    .name = "eventlib::EventArray",
    .elements = qelSequenceOf<self>,
    .create = &qelCreateOf<self>,
};

namespace {

btkTimeval limitOf(double timeout)
{
    return timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout);
}

} // namespace

int evtEvent::Wait(evtEventArray* events, double timeout)
{
    const std::size_t count = qelIsObject(events) ? static_cast<std::size_t>(events->getarraysize()) : 0;
    evtEvent* const* const list = count > 0 ? events->First() : nullptr;
    return WaitForAny(count, limitOf(timeout), [list](std::size_t i) -> btkEvent* {
        return qelIsObject(list[i]) ? list[i] : nullptr;
    });
}

unsigned char evtEvent::Wait(double timeout)
{
    return WaitForAny(1, limitOf(timeout), [this](std::size_t) -> btkEvent* { return this; }) == 1;
}

unsigned char evtEvent::getIsSignaled()
{
    return IsSignaled();
}

void evtRemoveEvent(evtEventArray* events, evtEvent* event)
{
    if (!qelIsObject(events))
        return;
    const int count = events->getarraysize();
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        if (evtEvent* const other = events->get(i); other != event) {
            if (kept != i)
                events->set(kept, other);
            ++kept;
        }
    }
    if (kept < count)
        events->removerange(kept, count);
}
