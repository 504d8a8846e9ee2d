#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

namespace qel {

/// Owns a caught failure of any class: its destructor releases the catcher's reference, or frees an exception
/// of a class that is not countable.
///
///     try {
///         stream.ReadInt();
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         std::cerr << failure.type() << ": " << failure.what() << '\n';
///     }
///
/// Hand it on by moving it. A handler that owns its failure passes it on with rethrow(), never with `throw;`,
/// which would leave two owners.
class QEL_API caught
{
public:
    /// Takes over the catcher's reference. Null and uninit are stored unchanged.
    explicit caught(xthrowable* thrown) noexcept : failure(thrown) {}
    caught(caught&& other) noexcept : failure(other.giveUp()) {}
    caught& operator=(caught&& other) noexcept;
    ~caught();

    xthrowable* operator->() const { return failure; }
    /// Returns the failure, which this object keeps owning.
    xthrowable* get() const { return failure; }
    /// Whether there is a failure: not null, not uninit, not moved away or rethrown.
    explicit operator bool() const { return qelIsObject(failure); }

    /// Returns the text of the failure, as qelTextOf does.
    xstring what() const;
    /// Returns the registered name of the failure's class; the null string without a failure.
    xstring type() const;
    /// Returns the failure as an X, or null if it is none.
    template<class X>
    X* as() const
    {
        return qelIsObject(failure) ? X::softcast(failure) : nullptr;
    }
    /// Throws the failure again, as an `xthrowable*` that the next handler owns.
    /// @throws qelXNotInitialized  there is no failure
    [[noreturn]] void rethrow();

private:
    xthrowable* giveUp() noexcept
    {
        xthrowable* const mine = failure;
        failure = nullptr;
        return mine;
    }

    xthrowable* failure;
};

/// From now on, a failure that nothing catches is reported on the standard error output, with class, text and
/// function, before the process aborts. Other exceptions are reported as before. Call it once, in main.
QEL_API void reportUncaught();

} // namespace qel
