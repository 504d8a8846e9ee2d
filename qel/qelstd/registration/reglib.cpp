#include "reglib.h"

#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_reglib::qelRttiRegister_reglib()
{
    qelRegister<regKey, regRegistry, regXNameInvalid, regXKeyClosed, regXAccess>();
}
