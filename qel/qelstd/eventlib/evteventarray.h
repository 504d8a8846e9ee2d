#pragma once

#include <qel/evtevent.h>
#include <qel/xsequence.h>

/// Events to be waited for together, as plain pointers: the array owns none of them. Not counted: freed with
/// xdelete.
///
///     const auto input = qel::own(stream.InputEvent());
///     const auto interrupt = qel::own(pcInterruptEvent::Create());
///     const auto both = qel::own(evtEventArray::create());
///     both->append(input.get());
///     both->append(interrupt.get());
///     if (evtEvent::Wait(both.get(), 5) != 0 && interrupt->WasSignaled())
///         std::cout << "interrupted\n";
class QEL_API evtEventArray : public xtssequence<evtEvent*>
{
    QEL_OBJECT(evtEventArray); // "eventlib::EventArray"
    QEL_NOT_COUNTED;

public:
    evtEventArray() : xtssequence({false, 256}) {}
    /// A new, empty one, which the caller owns.
    static evtEventArray* create() { return new (pDefMemMgr) evtEventArray; }

private:
    friend class evtEvent;

    evtEvent* const* First() { return at(0); }
};
