#pragma once

#include <memory>
#include <string>

#include <qel/xiolib.h>

#include "support/owned.h"
#include "support/texts.h"
#include "support/thrown.h"

/// The text of a stream's failure.
inline std::string StreamFailureText(xthrowable* thrown)
{
    ioXStream* const failure = ioXStream::softcast(thrown);
    return failure == nullptr ? "another exception" : failure->getMsg().CastToCString();
}

/// The text of the stream exception that `work` throws; "" when it throws none.
template<class Work>
std::string FailureOf(Work work)
{
    return describeThrown(work, StreamFailureText);
}

/// A string stream to be written and read back, in the form `serializer`.
inline Owned<ioStringStream> MemoryStream(ioSerializer* serializer)
{
    Owned<ioStringStream> stream(ioStringStream::Create(xnullstr));
    stream->setSerializer(serializer);
    return stream;
}

/// All unread bytes of `stream`.
inline std::string RestOf(ioStream& stream)
{
    std::string bytes(stream.PeekNBytes(), ' ');
    if (!bytes.empty())
        stream.ReadBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
    return bytes;
}

/// "00 0A ff" as bytes.
inline std::string Hex(const std::string& digits)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 3)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}
