#pragma once

#include <qel/evtevent.h>

/// The interrupt of the console's user: signaled from the first interrupt or quit key (SIGINT, SIGQUIT) until
/// Reset. While such an event exists, these keys do not end the program; destroying the last one restores
/// their previous effect. All share one state. Not counted: freed with xdelete.
///
///     qel::loop loop;
///     const auto interrupt = qel::own(pcInterruptEvent::Create());
///     loop.on(*interrupt, [&] { loop.stop(); });
///     loop.run();
class QEL_API pcInterruptEvent : public evtEvent
{
    QEL_OBJECT(pcInterruptEvent); // "proclib::InterruptEvent"

public:
    /// A new event, which the caller owns; null when the operating system cannot provide another one. Safe to
    /// call from any thread.
    static pcInterruptEvent* Create();
    /// Resets all of them to not signaled. Safe to call from any thread.
    static void Reset();
    ~pcInterruptEvent() override;

private:
    explicit pcInterruptEvent(btkHandle event);
};
