#include "qeltable.h"
#include "registrars_p.h"
#include "xrttiattrseq.h"

qelRttiRegister_xrtti::qelRttiRegister_xrtti()
{
    qelRegister<xrtti, xrttibasic, xrttienum, xrttiobject, xrttiattr, xrttiattrseq, xrttistruct, xrttiarray,
                xrttisequence, xrttidictionary, xrttiunion>();
}
