#pragma once

#include <qel/base/btkevent.h>
#include <qel/qelduration.h>
#include <qel/xobject.h>

class evtEventArray;

/// No limit, for parameters that take a limit in seconds. Equal to xnullreal.
inline constexpr double INFINITE = xnullreal;

/// A waitable condition: a pending connection, the exit of a process, data on a stream. It is signaled or
/// not; waiting does not reset it. The libraries that own these resources create the events. Not counted:
/// freed with xdelete.
///
/// A wait sleeps in the calling thread only. Limits are seconds: INFINITE waits without limit, negative ones
/// not at all.
///
///     const auto input = qel::own(stream.InputEvent());
///     if (input->Wait(5)) // seconds
///         std::cout << stream.ReadInt() << '\n';
class QEL_API evtEvent : public btkEvent, public virtual xobject
{
    QEL_OBJECT(evtEvent); // "eventlib::Event"
    QEL_NOT_COUNTED;

public:
    /// Waits until at least one event of `events` is signaled or `timeout` has passed. Returns how many are
    /// signaled, or 0; WasSignaled() of each then says whether it is one of them. Null entries are skipped.
    /// The array must not be changed meanwhile. Costs time proportional to their number. qel::waitAny and qel::loop of
    /// <qel/qelloop.h> tell which.
    static int Wait(evtEventArray* events, double timeout);
    template<qelDuration D>
    static int Wait(evtEventArray* events, const D& limit)
    {
        return Wait(events, qelSeconds(limit));
    }
    /// Waits for this event. Returns whether it is signaled.
    unsigned char Wait(double timeout);
    template<qelDuration D>
    unsigned char Wait(const D& limit)
    {
        return Wait(qelSeconds(limit));
    }
    /// Whether the event is signaled now.
    unsigned char getIsSignaled();

protected:
    /// Takes ownership of `base`, the underlying event. Null: an event that is never signaled.
    explicit evtEvent(btkBaseEvent* base) : btkEvent(base) {}
};

/// Removes every occurrence of `event` from `events`; the others keep their order.
QEL_API void evtRemoveEvent(evtEventArray* events, evtEvent* event);
