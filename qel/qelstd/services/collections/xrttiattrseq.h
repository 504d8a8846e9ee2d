#pragma once

#include <qel/xsequence.h>

class xrttiattr;

/// A list of attributes that it does not own. Its class is not countable: the list is freed with xdelete.
class QEL_API xrttiattrseq : public xtssequence<xrttiattr*>
{
    QEL_OBJECT(xrttiattrseq); // "xrttiattrseq"
    QEL_NOT_COUNTED;

public:
    static xrttiattrseq* create() { return new (pDefMemMgr) xrttiattrseq; }
};
