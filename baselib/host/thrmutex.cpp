#include "thrmutex.h"

constinit bool s_bThreadingEnabled = false;

void thrMutex::Lock()
{
    if (isEnabled)
        mutex.lock();
}

void thrMutex::Unlock()
{
    if (isEnabled)
        mutex.unlock();
}

thrMutex& thrLibraryMutex()
{
    // Never destroyed: used by objects that outlive every static.
    static thrMutex* const mutex = new thrMutex;
    return *mutex;
}
