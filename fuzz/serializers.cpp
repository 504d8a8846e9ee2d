// Arbitrary bytes read as a sequence of values in each form, from memory and, part by part, through a pipe.
// Both return the same; no try consumes anything; a value that was read can be written and read again.
#include <cstring>
#include <optional>
#include <string>

#include <qel/qelown.h>
#include <qel/xiolib.h>

#include "target.h"

namespace {

enum Kind { byteKind, intKind, boolKind, realKind, stringKind, kinds };

const char* const delimiters[] = {nullptr, ",", " ", xnullstr};

ioTryCode attempt(ioStream& stream, int kind, const char* delims)
{
    switch (kind) {
    case byteKind:
        return stream.TryReadByte();
    case intKind:
        return stream.TryReadInt();
    case boolKind:
        return stream.TryReadBool();
    case realKind:
        return stream.TryReadReal();
    default:
        return stream.TryReadString(delims);
    }
}

// Reads one value. "=" and its bits, or the text of the failure.
std::string read(ioStream& stream, int kind, const char* delims)
{
    const auto bits = [](const auto& value) {
        return "=" + std::string(reinterpret_cast<const char*>(&value), sizeof value);
    };
    try {
        switch (kind) {
        case byteKind:
            return bits(stream.ReadByte());
        case intKind:
            return bits(stream.ReadInt());
        case boolKind:
            return bits(stream.ReadBool());
        case realKind:
            return bits(stream.ReadReal());
        default:
            return "=" + std::string(stream.ReadString(delims).CastToCString());
        }
    } catch (xthrowable* thrown) {
        ioXStream* const failure = ioXStream::cast(thrown);
        const std::string text = failure->getMsg().CastToCString();
        xdelete(failure);
        stream.setIsFail(0);
        return text;
    }
}

// A pipe that receives the bytes part by part.
class Parts
{
public:
    Parts(ioSerializer* form, const std::uint8_t* bytes, std::size_t count) : next(bytes), left(count)
    {
        Out().setSerializer(form);
        In().setSerializer(form);
    }

    ioStream& In() { return *pipe->getReadEnd(); }
    void Send(std::size_t count)
    {
        count = std::min(count, left);
        Out().WriteBytes(next, static_cast<unsigned>(count));
        next += count;
        left -= count;
        if (left == 0)
            Out().Close();
    }

    // Requires the same result as of a try on all of the bytes.
    void RequireTry(ioTryCode answer, int kind, const char* delims, std::size_t part)
    {
        ioTryCode piped;
        while ((piped = attempt(In(), kind, delims)) == ioWouldBlock) {
            require(left > 0);
            Send(part);
        }
        require(piped == answer);
        if (left > 0 && answer != ioSuccess && answer != ioFormatError)
            Send(left); // the read that fails at the end consumes all before it
    }

private:
    ioStream& Out() { return *pipe->getWriteEnd(); }

    qel::owned<ioPipe> pipe{ioPipe::Create()};
    const std::uint8_t* next;
    std::size_t left;
};

void readAll(const std::uint8_t* data, std::size_t size)
{
    ioSerializer* const forms[] = {ioSerializer::getAscii(), ioSerializer::getBinary(),
                                   ioSerializer::getXDR()};
    ioSerializer* const form = forms[data[0] % 3];
    const bool isPiped = data[0] < 32;
    std::uint32_t choice = 0;
    std::memcpy(&choice, data + 1, sizeof choice);
    data += 5;
    size -= 5;

    const qel::owned<ioStringStream> memory(ioStringStream::Create(xnullstr));
    memory->setSerializer(form);
    memory->WriteBytes(data, static_cast<unsigned>(size));
    std::optional<Parts> parts;
    if (isPiped) {
        parts.emplace(form, data, size);
        parts->Send(choice % 7);
    }

    for (int reads = 0; reads < 200; ++reads) {
        choice = choice * 1664525 + 1013904223;
        const int kind = static_cast<int>(choice >> 16) % kinds;
        const char* const delims = delimiters[(choice >> 24) % 4];

        const unsigned left = memory->PeekNBytes();
        const ioTryCode answer = attempt(*memory, kind, delims);
        require(memory->PeekNBytes() == left);
        if (isPiped)
            parts->RequireTry(answer, kind, delims, 1 + (choice >> 8) % 9);

        const std::string value = read(*memory, kind, delims);
        require((answer == ioSuccess) == (value[0] == '='));
        if (isPiped)
            require(read(parts->In(), kind, delims) == value);
        if (answer != ioSuccess && memory->PeekNBytes() == 0)
            break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size >= 5 && size < 8192)
        readAll(data, size);
    return 0;
}
