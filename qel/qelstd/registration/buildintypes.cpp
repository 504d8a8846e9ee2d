#include "qelrtti.h"
#include "registrars_p.h"

qelRttiRegister_buildintypes::qelRttiRegister_buildintypes()
{
    qelRttiAddToMap(qelGetRtti_bool());
    qelRttiAddToMap(qelGetRtti_int());
    qelRttiAddToMap(qelGetRtti_real());
    qelRttiAddToMap(qelGetRtti_string());
    qelRttiAddToMap(qelGetRtti_any());
    qelRttiAddToMap(qelGetRtti_object());
}
