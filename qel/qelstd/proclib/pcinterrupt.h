#pragma once

#include <qel/evtevent.h>

/// The interrupt of the console's user: signaled from the first interrupt or quit key (SIGINT, SIGQUIT) until
/// Reset. While there is such an event, these keys do not end the program; with the last one, what they did
/// before comes back. All share one state. Not counted: freed with xdelete.
class QEL_API pcInterruptEvent : public evtEvent
{
    QEL_OBJECT(pcInterruptEvent); // "proclib::InterruptEvent"

public:
    /// Null when the host has no event left. Safe to call from any thread.
    static pcInterruptEvent* Create();
    /// Makes all of them not signaled. Safe to call from any thread.
    static void Reset();
    ~pcInterruptEvent() override;

private:
    explicit pcInterruptEvent(btkHandle event);
};
