#pragma once

#include <qel/xhandle.h>

/// The base of every exception that the framework throws.
///
///     try {
///         stream.WriteInt(42);
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown); // frees it
///         std::cerr << failure.what() << '\n';
///     }
class QEL_API xthrowable : public xobject
{
public:
    ~xthrowable() override;
};

/// Throws the object that `h` holds, as an `xthrowable*` that carries one more reference. The catcher owns
/// and releases that reference; an exception of a class that is not countable is freed with xdelete. A null
/// handle throws qelXNotInitialized instead.
[[noreturn]] QEL_API void xthrow(xrcunihandle<xthrowable> h);
