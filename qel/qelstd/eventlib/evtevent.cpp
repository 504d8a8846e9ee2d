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

int WaitForAny(const btkEvent::List& list, double timeout)
{
    const btkTimeval limit = timeout == INFINITE ? btkTimeval::Forever() : btkTimeval(timeout);
    const int signaled = btkEvent::Wait(list, limit, btkTimeval(0.01));
    return signaled > 0 ? signaled : 0;
}

} // namespace

int evtEvent::Wait(evtEventArray* events, double timeout)
{
    btkEvent::List list;
    if (qelIsObject(events)) {
        const int count = events->getarraysize();
        list.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i)
            list.push_back(qelIsObject(events->get(i)) ? events->get(i) : nullptr);
    }
    return WaitForAny(list, timeout);
}

unsigned char evtEvent::Wait(double timeout)
{
    return WaitForAny({this}, timeout) == 1;
}

unsigned char evtEvent::getIsSignaled()
{
    return IsSignaled();
}

void evtRemoveEvent(evtEventArray* events, evtEvent* event)
{
    if (!qelIsObject(events))
        return;
    for (int i = 0; i < events->getarraysize();) {
        if (events->get(i) == event)
            events->removerange(i, i + 1);
        else
            ++i;
    }
}
