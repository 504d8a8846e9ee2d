#pragma once

#include "qelstd_c.h"
#include "xobject.h"

/// Runs `operation` for a C caller: a framework exception becomes the current one, and `otherwise` is the
/// answer. Others pass through.
template<class R, class Operation>
R qelForC(R otherwise, Operation operation)
{
    try {
        return operation();
    } catch (xthrowable* thrown) {
        xsetexc_c(thrown);
        xrcrelease(thrown); // the catcher's reference; an exception that is not countable is the slot's now
        return otherwise;
    }
}
