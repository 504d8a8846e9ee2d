#pragma once

#include <new>

#include "qelstd_c.h"
#include "xobject.h"

/// Makes `e` the current exception and takes over the caller's reference to it, or its ownership if its class
/// is not countable.
void qelKeepCurrent(xthrowable* e);
/// Makes a qelXNativeException current without allocating memory.
void qelKeepOutOfMemory();

/// Runs `operation` for a C caller: a framework exception or a lack of memory becomes the current exception,
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
