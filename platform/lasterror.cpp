// Alone in its file: when this folder is linked twice (into a test and the shared library), both share one
// copy of the number.
#include "lasterror.h"

namespace {

constinit thread_local unsigned lastError = 0;

}

unsigned int GetLastError()
{
    return lastError;
}

void SetLastError(unsigned int error)
{
    lastError = error;
}
