#include "qeltable.h"
#include "registrars_p.h"
#include "tmexception.h"
#include "tmtime.h"

qelRttiRegister_timelib::qelRttiRegister_timelib()
{
    qelRegister<tmTime, tmXException, tmXInvalTimeString, tmXCantMakeTime, tmXCantMakeTimeString>();
}
