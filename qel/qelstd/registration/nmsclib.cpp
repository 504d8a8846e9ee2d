#include "nmsproxy.h"
#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_nmsclib::qelRttiRegister_nmsclib()
{
    qelRegister<nmsRecord, nmsRecordArray, nmsServerProxy, nmsXException, nmsXCantConnectLocal,
                nmsXCantConnectByName, nmsXCantRegisterRecord, nmsXCantDelete, nmsXCantQuery,
                nmsXCantShutdown, nmsXCantGetVersion>();
}
