#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "btksocket.h"

/// The bytes of an urgent value, and those that lie before its mark.
inline constexpr std::size_t btkUrgentSize = 4;
inline constexpr std::size_t btkBeforeMark = btkUrgentSize - 1;

/// Data read from the kernel but not delivered yet: ordinary bytes up to the last mark, or as far as the
/// kernel had any, and the urgent values at the marks.
struct btkStreamSocket::Ahead
{
    struct Value
    {
        std::array<char, btkUrgentSize> bytes;
        std::size_t count;
    };

    std::string bytes;
    std::size_t taken = 0;   // of bytes
    bool isMarkNear = false; // the last three bytes may belong to the value at a mark further on
    std::array<Value, 16> values;
    std::size_t firstValue = 0;
    std::size_t valueCount = 0;

    std::size_t Count() const { return bytes.size() - taken; }
    // The number of bytes that are certainly ordinary.
    std::size_t Sure() const
    {
        const std::size_t unsure = isMarkNear ? btkBeforeMark : 0;
        return Count() > unsure ? Count() - unsure : 0;
    }
    std::size_t Take(char* to, std::size_t size)
    {
        const std::size_t count = std::min(size, Sure());
        std::memcpy(to, bytes.data() + taken, count);
        taken += count;
        ForgetTaken();
        return count;
    }
    // Takes the bytes before a mark, which belong to its value.
    void TakeBack(char* to, std::size_t size)
    {
        const std::size_t rest = bytes.size() - size;
        std::memcpy(to, bytes.data() + rest, size);
        bytes.resize(rest);
        ForgetTaken();
    }
    void ForgetTaken()
    {
        if (Count() > 0)
            return;
        // Releases the memory of a long way to a mark.
        bytes = std::string();
        taken = 0;
    }
    // Keeps the newest values.
    void Push(const Value& value)
    {
        values[(firstValue + valueCount) % values.size()] = value;
        if (valueCount < values.size())
            ++valueCount;
        else
            firstValue = (firstValue + 1) % values.size();
    }
    std::size_t Pop(void* to, std::size_t size)
    {
        if (valueCount == 0)
            return 0;
        const Value& value = values[firstValue];
        const std::size_t count = std::min(value.count, size);
        std::memcpy(to, value.bytes.data(), count);
        firstValue = (firstValue + 1) % values.size();
        --valueCount;
        return count;
    }
};
