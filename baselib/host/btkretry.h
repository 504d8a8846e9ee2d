#pragma once

#include <cerrno>

/// Repeats a call of the operating system while a signal interrupts it. Returns its result: -1 with the
/// reason in errno when it failed otherwise. Not for close, which closes the descriptor even when
/// interrupted.
template<typename Call>
auto btkRetry(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}
