#pragma once

#include <cxxabi.h>

/// For a `catch (...)` that swallows the exception: rethrows the exceptions that cancel or exit the thread,
/// which must not be swallowed.
__attribute__((no_sanitize("null"))) inline void thrPassCancellation()
{
    try {
        throw;
    } catch (const abi::__forced_unwind&) { // has no object
        throw;
    } catch (...) {
        return;
    }
}
