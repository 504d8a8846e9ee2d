#include "qeltable.h"
#include "registrars_p.h"
#include "rshprocess.h"
#include "rshserver.h"

qelRttiRegister_rshlib::qelRttiRegister_rshlib()
{
    qelRegister<rshProcess, rshEvent, rshError, rshXException, rshXProcess, rshXServer, rshXConnection,
                rshServer, rshServerEvent, rshConnection>();
}
