#include "qelversion.h"

const char* qelVersion()
{
    return QEL_VERSION;
}
