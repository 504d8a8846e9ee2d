#include "qeltable.h"
#include "registrars_p.h"
#include "xmonlib.h"

qelRttiRegister_monlib::qelRttiRegister_monlib()
{
    qelRegister<monParam, monIntParam, monBoolParam, monRealParam, monStringParam, monParamDict, monFile>();
}
