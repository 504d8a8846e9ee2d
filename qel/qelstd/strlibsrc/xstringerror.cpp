#include "xstringerror_p.h"

#include <qel/base/btkabort.h>

void qelThrowInvalidWide()
{
    QEL_ABORT("xstring::GetMBSize: invalid wide string");
}
