#include "xstringerror_p.h"

#include <qel/qelexception.h>

void qelThrowInvalidWide()
{
    qelXNativeException::Throw("xstring::GetMBSize: invalid wide string");
}
