// Streams: typed values in three byte forms, operations that never wait, and events to wait for.

#include <cstdio>
#include <iostream>

#include <qel/qelcaught.h>
#include <qel/qelown.h>
#include <qel/xiolib.h>
#include <qel/xstring.h>

namespace {

// sample forms
void write(ioStream& stream)
{
    stream.WriteInt(258);
    stream.WriteBool(1);
    stream.WriteString("hi");
}

void show(ioSerializer* form)
{
    const qel::owned<ioStringStream> memory(ioStringStream::Create(xnullstr));
    memory->setSerializer(form);
    write(*memory);
    for (unsigned left = memory->PeekNBytes(); left > 0; --left)
        std::printf("%02x ", static_cast<unsigned char>(memory->ReadByte()));
    std::printf("\n");
}
// end

// sample waiting
void waiting()
{
    const qel::owned<ioPipe> pipe(ioPipe::Create());
    ioPipeStream* const in = pipe->getReadEnd();
    ioPipeStream* const out = pipe->getWriteEnd();

    std::cout << "whole int there: " << (in->TryReadInt() == ioSuccess);
    out->WriteBytes("\1\2", 2);                   // half an int
    std::cout << (in->TryReadInt() == ioSuccess); // would block, and has taken nothing
    out->WriteBytes("\0\0", 2);
    std::cout << (in->TryReadInt() == ioSuccess) << std::endl;

    const qel::owned<ioEvent> input(in->InputEvent());
    std::cout << "signaled: " << +input->Wait(0);
    std::cout << ", value: " << in->ReadInt(); // does not wait: it is there
    std::cout << ", signaled: " << +input->Wait(0) << std::endl;
}
// end

// sample end
void atTheEnd()
{
    const qel::owned<ioStringStream> words(ioStringStream::Create("one"));
    words->ReadString(nullptr);
    try {
        words->ReadString(nullptr);
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown);
        std::cout << failure.what() << ", at the end: " << +words->getIsEof() << std::endl;
    }
}
// end

} // namespace

int main()
{
    show(ioSerializer::getAscii());
    show(ioSerializer::getBinary());
    show(ioSerializer::getXDR());
    std::fflush(stdout);
    waiting();
    atTheEnd();
}
