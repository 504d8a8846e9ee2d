#pragma once

#include <qel/xsequence.h>

class xrttiattr;

/// A list of attributes that it does not own. Its class is not countable: the list is freed with xdelete.
///
///     const auto attrs = qel::own(qelRttiCollectAttrs(xrttistruct::cast(fsNodeInfo::getClassRtti()), true));
///     for (xrttiattr* const attr : *attrs)
///         std::cout << attr->getName() << '\n'; // Type, ModTime, Size
class QEL_API xrttiattrseq : public xtssequence<xrttiattr*>
{
    QEL_OBJECT(xrttiattrseq); // "xrttiattrseq"
    QEL_NOT_COUNTED;

public:
    /// A new, empty one, which the caller owns.
    static xrttiattrseq* create() { return new (pDefMemMgr) xrttiattrseq; }
};
