#pragma once

#include <string>

#include <qel/base/nmswire.h>

#include "support/socketpair.h"

// Bytes as the protocols send them, and test data to send.

/// The four bytes of a number in network order.
inline std::string Number(int value)
{
    std::string bytes;
    nmsPutInt(bytes, value);
    return bytes;
}

/// A text behind its length, as streams in network form and the remote shell have it.
inline std::string Text(const std::string& text)
{
    return Number(static_cast<int>(text.size())) + text;
}

/// Bytes that no shift or loss leaves unchanged.
inline std::string numbered(std::size_t count)
{
    std::string made(count, 0);
    for (std::size_t i = 0; i < count; ++i)
        made[i] = static_cast<char>(i * 7 + i / 251);
    return made;
}

/// `most` bytes, or those before the end.
inline std::string received(btkStreamSocket& from, std::size_t most)
{
    std::string all(most, 0);
    all.resize(from.RecvAll(all.data(), most));
    return all;
}
