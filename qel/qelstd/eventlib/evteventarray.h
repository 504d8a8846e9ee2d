#pragma once

#include <qel/evtevent.h>
#include <qel/xsequence.h>

/// Events to be waited for together, as plain pointers: the array owns none of them. Not counted: freed with
/// xdelete.
class QEL_API evtEventArray : public xtssequence<evtEvent*>
{
    QEL_OBJECT(evtEventArray); // "eventlib::EventArray"
    QEL_NOT_COUNTED;

public:
    evtEventArray() : xtssequence({false, 256}) {}
    static evtEventArray* create() { return new (pDefMemMgr) evtEventArray; }

private:
    friend class evtEvent;

    evtEvent* const* First() { return at(0); }
};
