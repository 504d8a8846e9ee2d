#pragma once

#include <new>

#include "qelstd_c.h"
#include "xobject.h"

/// Makes `e` the current exception and takes over the caller's reference to it, or all of it when its class
/// is not countable.
void qelKeepCurrent(xthrowable* e);
/// Makes a qelXNativeException current without asking for memory.
void qelKeepOutOfMemory();

/// Runs `operation` for a C caller: a framework exception becomes the current one, as does a lack of memory,
/// and `otherwise` is returned. Other exceptions pass through.
template<class R, class Operation>
R qelForC(R otherwise, Operation operation)
{
    try {
        return operation();
    } catch (xthrowable* thrown) {
        qelKeepCurrent(thrown);
        return otherwise;
    } catch (const std::bad_alloc&) {
        qelKeepOutOfMemory();
        return otherwise;
    }
}
