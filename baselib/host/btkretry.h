#pragma once

#include <cerrno>

/// Makes a call of the operating system again as long as a signal interrupts it. Returns its result: -1 with
/// the reason in errno when it failed otherwise. Not for close, which has closed all the same.
template<typename Call>
auto btkRetry(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}
