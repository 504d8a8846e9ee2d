#pragma once

#include <type_traits>

#include "qelexception.h"
#include "qeltable.h"

// The rows of an exception:
//     QEL_EXCEPTION(qelXNegativeIndex, qelXException, "qellib::XNegativeIndex", qelCounted, QEL_ATTR(Index));
//     QEL_EXCEPTION_TEXT(qelXNegativeIndex, "Negative index", (int index), (index), Index(index))

constexpr bool qelCounted = true;
constexpr bool qelNotCounted = false;

template<auto value>
using qelConstant = std::integral_constant<decltype(value), value>;

/// The rebuild function of T: null for a class without QEL_REBUILD, even if its Parent has it.
template<class T, class Parent>
constexpr auto qelRebuildBeyond() -> xobject* (*)(qelS11nContext*)
{
    // Functions are compared as template arguments: a comparison of addresses is no constant under a sanitizer.
    if constexpr (requires { &Parent::_s11n_create; })
        return std::is_same_v<qelConstant<&T::_s11n_create>, qelConstant<&Parent::_s11n_create>>
                   ? nullptr
                   : &qelRebuildOf<T>;
    else if constexpr (requires { &T::_s11n_create; })
        return &qelRebuildOf<T>;
    else
        return nullptr;
}

/// Defines the table of an exception: its parent, its registered name, whether it is counted, and its own
/// attributes.
#define QEL_EXCEPTION(T, Parent, registeredName, isCounted, ...)   \
    constinit qelClass T::rtti = {.name = registeredName,          \
                                  .counted = isCounted,            \
                                  .parents = {QEL_PARENT(Parent)}, \
                                  .attrs = {__VA_ARGS__},          \
                                  .rebuild = qelRebuildBeyond<self, Parent>()}

/// Defines the constructor of an exception with its own text, and its Throw. `parameters` and `arguments` are
/// in parentheses; the initializers of the attributes follow them.
#define QEL_EXCEPTION_TEXT(T, text, parameters, arguments, ...) \
    T::T parameters __VA_OPT__( :) __VA_ARGS__                  \
    {                                                           \
        describe(text);                                         \
    }                                                           \
    void T::Throw parameters                                    \
    {                                                           \
        qelThrowNew<T> arguments;                               \
    }
