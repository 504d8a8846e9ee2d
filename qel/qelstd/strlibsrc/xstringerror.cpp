#include <qel/qelexception.h>

#include "xstringerror_p.h"

void qelThrowInvalidWide()
{
    qelXNativeException::Throw("xstring::GetMBSize: invalid wide string");
}
