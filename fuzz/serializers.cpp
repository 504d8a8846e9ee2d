// Arbitrary bytes read as a sequence of values in each form, from memory and, part by part, through a pipe.
// What the two ways answer is the same; no try consumes anything; what was read can be written and read
// again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <qel/xiolib.h>

namespace {

struct Xdelete
{
    void operator()(xobject* p) const { xdelete(p); }
};

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

enum Kind { byteKind, intKind, boolKind, realKind, stringKind, kinds };

const char* const delimiters[] = {nullptr, ",", " ", xnullstr};

ioTryCode Try(ioStream& stream, int kind, const char* delims)
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

// Reads one value. Its bits, or "failed: " and the state.
std::string Read(ioStream& stream, int kind, const char* delims)
{
    const auto bits = [](const auto& value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
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
            return "text " + std::string(stream.ReadString(delims).CastToCString());
        }
    } catch (xthrowable* thrown) {
        ioXStream* const failure = ioXStream::cast(thrown);
        const std::string text = std::string("failed: ") + failure->getMsg().CastToCString();
        xdelete(failure);
        stream.setIsFail(0);
        return text;
    }
}

void ReadAll(const std::uint8_t* data, std::size_t size)
{
    ioSerializer* const forms[] = {ioSerializer::getAscii(), ioSerializer::getBinary(),
                                   ioSerializer::getXDR()};
    ioSerializer* const form = forms[data[0] % 3];
    std::uint32_t choice = 0;
    std::memcpy(&choice, data + 1, sizeof choice);
    data += 5;
    size -= 5;

    const std::unique_ptr<ioStringStream, Xdelete> memory(ioStringStream::Create(xnullstr));
    memory->setSerializer(form);
    memory->WriteBytes(data, static_cast<unsigned>(size));
    const std::unique_ptr<ioPipe, Xdelete> pipe(ioPipe::Create());
    ioStream& out = *pipe->getWriteEnd();
    ioStream& in = *pipe->getReadEnd();
    out.setSerializer(form);
    in.setSerializer(form);

    std::size_t sent = 0;
    const auto send = [&](std::size_t count) {
        count = std::min(count, size - sent);
        out.WriteBytes(data + sent, static_cast<unsigned>(count));
        sent += count;
        if (sent == size)
            out.Close();
    };
    send(choice % 7);

    for (int reads = 0; reads < 200; ++reads) {
        choice = choice * 1664525 + 1013904223;
        const int kind = static_cast<int>(choice >> 16) % kinds;
        const char* const delims = delimiters[(choice >> 24) % 4];

        const unsigned left = memory->PeekNBytes();
        const ioTryCode answer = Try(*memory, kind, delims);
        Require(memory->PeekNBytes() == left);

        ioTryCode piped = Try(in, kind, delims);
        while (piped == ioWouldBlock) {
            Require(sent < size);
            send(1 + (choice >> 8) % 9);
            piped = Try(in, kind, delims);
        }
        Require(piped == answer);

        const std::string value = Read(*memory, kind, delims);
        Require((answer == ioSuccess) == (value.compare(0, 8, "failed: ") != 0));
        if (sent < size && answer != ioSuccess && answer != ioFormatError)
            send(size);
        Require(Read(in, kind, delims) == value);
        if (answer != ioSuccess && memory->PeekNBytes() == 0)
            break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size >= 5 && size < 32768)
        ReadAll(data, size);
    return 0;
}
