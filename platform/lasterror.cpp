// Alone in its file: where this folder is linked in twice (a test and the shared library), one of the two
// keeps the number for both.
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
