#include "xrttiattrseq.h"

#include "qelrtti.h"
#include "qeltable.h"
#include "xrtti.h"

constinit qelClass xrttiattrseq::rtti = {
    .name = "xrttiattrseq",
    .elements = qelSequenceOf<self>,
    .create = &qelCreateOf<self>,
};

void qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited, xrttiattrseq* out)
{
    for (int i = 0; inherited && i < type->getNParents(); ++i)
        qelRttiCollectAttrs(xrttistruct::cast(type->getParent(i)), inherited, out);
    for (int i = 0; i < type->getNAttrs(); ++i)
        out->append(type->getAttr(i));
}

xrttiattrseq* qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited)
{
    xrttiattrseq* const attrs = xrttiattrseq::create();
    try {
        qelRttiCollectAttrs(type, inherited, attrs);
    } catch (...) {
        xdelete(attrs);
        throw;
    }
    return attrs;
}
