#pragma once

#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <streambuf>

#include <qel/base/btkbyteorder.h>

#include "iotext_p.h"

// Values as words of 1, 4 or 8 bytes, in the machine's byte order or in network byte order.

struct ioNative
{
    template<class Word>
    static Word Order(Word word)
    {
        return word;
    }
};

struct ioNetwork
{
    template<class Word>
    static Word Order(Word word)
    {
        return btkNetworkOrder(word);
    }
};

template<class Form, class Value>
Value ioDecode(const char* from)
{
    btkWord<Value> word;
    std::memcpy(&word, from, sizeof word);
    return std::bit_cast<Value>(Form::Order(word));
}

template<class Form, class Value>
void ioEncode(char* to, Value value)
{
    const auto word = Form::Order(std::bit_cast<btkWord<Value>>(value));
    std::memcpy(to, &word, sizeof word);
}

/// Reads or writes a value if the buffer holds all of it, or has room for it. Otherwise returns false and
/// does nothing.
template<class Form, class Value>
bool ioReadHeld(Value& value, std::streambuf& sb)
{
    const char* const next = xbufaccess::Next(sb);
    if (static_cast<std::size_t>(xbufaccess::End(sb) - next) < sizeof value) [[unlikely]]
        return false;
    value = ioDecode<Form, Value>(next);
    xbufaccess::Consume(sb, sizeof value);
    return true;
}

template<class Form, class Value>
bool ioWriteHeld(Value value, std::streambuf& sb)
{
    char* const place = xbufaccess::Place(sb);
    if (static_cast<std::size_t>(xbufaccess::Limit(sb) - place) < sizeof value) [[unlikely]]
        return false;
    // First: the compiler must assume that the bytes alias the buffer's pointers.
    xbufaccess::Commit(sb, sizeof value);
    ioEncode<Form>(place, value);
    return true;
}

template<class Form, class Value>
ioTryCode ioRead(Value& value, std::streambuf* sb)
{
    if (ioReadHeld<Form>(value, *sb))
        return ioSuccess;
    char bytes[sizeof value];
    if (sb->sgetn(bytes, sizeof bytes) != sizeof bytes)
        return ioEndOfFile;
    value = ioDecode<Form, Value>(bytes);
    return ioSuccess;
}

template<class Form, class Value>
ioTryCode ioWrite(Value value, std::streambuf* sb)
{
    if (ioWriteHeld<Form>(value, *sb))
        return ioSuccess;
    char bytes[sizeof value];
    ioEncode<Form>(bytes, value);
    return sb->sputn(bytes, sizeof bytes) == sizeof bytes ? ioSuccess : ioIOError;
}

/// Reads a string (an int with its length, then the bytes) if the buffer holds all of it, and returns its
/// bytes. Otherwise, or for an invalid length, returns null and does nothing.
template<class Form>
const char* ioReadTextHeld(std::size_t& length, std::streambuf& sb)
{
    const char* const next = xbufaccess::Next(sb);
    const std::size_t held = static_cast<std::size_t>(xbufaccess::End(sb) - next);
    if (held < sizeof(int))
        return nullptr;
    length = ioDecode<Form, std::uint32_t>(next); // a negative length exceeds every buffer
    if (length > held - sizeof(int) || length > INT_MAX)
        return nullptr;
    xbufaccess::Advance(sb, next + sizeof(int) + length);
    return next + sizeof(int);
}

/// Writes a string if there is room for all of it. Otherwise returns false and does nothing.
template<class Form>
bool ioWriteTextHeld(const char* s, std::size_t length, std::streambuf& sb)
{
    char* const room = xbufaccess::Reserve(sb, sizeof(int) + length);
    if (room == nullptr || length > ioLargestPart)
        return false;
    ioEncode<Form>(room, static_cast<int>(length));
    if (length > 0)
        std::memcpy(room + sizeof(int), s, length);
    xbufaccess::Commit(sb, static_cast<int>(sizeof(int) + length));
    return true;
}
