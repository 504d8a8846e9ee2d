#include "evteventarray.h"
#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_eventlib::qelRttiRegister_eventlib()
{
    qelRegister<evtEvent, evtEventArray>();
}
