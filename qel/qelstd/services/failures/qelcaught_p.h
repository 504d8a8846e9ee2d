#pragma once

#include <cxxabi.h>

#include <qel/xobject.h>

/// In a `catch (...)` that does not end by throwing on: throws on what cancels or ends the thread, which must
/// not be stopped.
__attribute__((no_sanitize("null"))) inline void qelPassCancellation()
{
    try {
        throw;
    } catch (const abi::__forced_unwind&) { // has no object
        throw;
    } catch (...) {
        return;
    }
}

/// Owns an exception that has been caught as an `xthrowable*`: gives the catcher's reference back, or frees
/// an exception of a class that is not countable.
class qelCaught
{
public:
    explicit qelCaught(xthrowable* e) : error(e) {}
    ~qelCaught()
    {
        if (!qelIsObject(error))
            return;
        if (error->isRefCountable())
            xrcrelease(error);
        else
            xdelete(error);
    }
    qelCaught(const qelCaught&) = delete;
    qelCaught& operator=(const qelCaught&) = delete;

private:
    xthrowable* const error;
};
