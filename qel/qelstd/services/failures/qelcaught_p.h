#pragma once

#include <qel/xobject.h>

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
