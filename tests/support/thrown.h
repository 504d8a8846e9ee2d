#pragma once

#include <string>
#include <type_traits>

#include <qel/qelcaught.h>

/// The result of `describe` for the X that `action` throws, which is then released; `nothing` when it throws
/// none. Any other framework exception fails the test.
template<class X = xthrowable, class Action, class Describe,
         class Answer = std::invoke_result_t<Describe, X*>>
Answer describeThrown(Action action, Describe describe, std::type_identity_t<Answer> nothing = {})
{
    try {
        action();
        return nothing;
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown);
        if constexpr (std::is_same_v<X, xthrowable>)
            return describe(thrown);
        else
            return describe(X::cast(thrown));
    }
}

/// The registered name of the framework exception that `action` throws, or "" when it throws none.
template<typename Action>
std::string thrownBy(Action action)
{
    return describeThrown(
        action, [](xthrowable* thrown) { return std::string(thrown->getQelTypeName().CastToCString()); });
}
