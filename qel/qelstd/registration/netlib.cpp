#include "qeltable.h"
#include "registrars_p.h"
#include "xnetlib.h"

qelRttiRegister_netlib::qelRttiRegister_netlib()
{
    qelRegister<netError, netXException, netAddress, netSocketStream, netService, netService_DoService_cb>();
}
