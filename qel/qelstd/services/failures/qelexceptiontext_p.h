#pragma once

#include "qelexception.h"

/// The constructor of an exception with a text of its own, and its Throw. `parameters` and `arguments` are in
/// parentheses; what initializes the attributes follows them:
///     QEL_EXCEPTION_TEXT(qelXNegativeIndex, "Negative index", (int index), (index), Index(index))
#define QEL_EXCEPTION_TEXT(T, text, parameters, arguments, ...) \
    T::T parameters __VA_OPT__( :) __VA_ARGS__                  \
    {                                                           \
        describe(text);                                         \
    }                                                           \
    void T::Throw parameters                                    \
    {                                                           \
        qelThrowNew<T> arguments;                               \
    }
