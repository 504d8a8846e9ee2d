#pragma once

#include <cxxabi.h>

#include <qel/xobject.h>

/// For a `catch (...)` that swallows the exception: rethrows the exceptions that cancel or exit the thread,
/// which must not be swallowed.
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

/// Owns an exception caught as an `xthrowable*`: releases the catcher's reference, or frees an exception of a
/// class that is not countable.
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
