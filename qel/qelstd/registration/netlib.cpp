#include "qeltable.h"
#include "registrars_p.h"
#include "xnetlib.h"

qelRttiRegister_netlib::qelRttiRegister_netlib()
{
    qelRegister<netServerLoopAction, netError, netXException, netAddress, netSocketStream, netBaseServer,
                netEvent, netServer, netService, netBaseServer_OnRequest_cb, netBaseServer_OnAsyncRequest_cb,
                netBaseServer_OnIdle_cb, netService_DoService_cb>();
}
