#include "qeltable.h"
#include "registrars_p.h"
#include "sysexception.h"

qelRttiRegister_syslib::qelRttiRegister_syslib()
{
    qelRegister<sysXException, sysXCantGetHostName, sysXCantGetUserName, sysXCantPutEnv>();
}
