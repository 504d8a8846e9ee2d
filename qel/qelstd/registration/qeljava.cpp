#include "qeltable.h"
#include "registrars_p.h"
#include "xportexception.h"

qelRttiRegister_qeljava::qelRttiRegister_qeljava()
{
    qelRegister<xportXCannotConnect, xportXMsgStringTooLong, xportXFlushFailed, xportXNullInNonOptArg,
                xportXTimeout>();
}
