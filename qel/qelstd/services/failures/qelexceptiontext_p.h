#pragma once

#include "qelexception.h"

/// Defines the constructor of an exception with its own text, and its Throw. `parameters` and `arguments` are
/// in parentheses; the initializers of the attributes follow them:
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
