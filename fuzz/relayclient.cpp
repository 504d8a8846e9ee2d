// Arbitrary bytes from the server to the client of a remote command, after its start or from the reply on:
// the client ends, and has stored no more than it was sent.
#include <cstring>

#include <qel/rshprocess.h>
#include <qel/xiolib.h>

#include "support/descriptors.h"
#include "support/streampair.h"
#include "target.h"

namespace {

void run(StreamPair& pair, std::size_t sent)
{
    const Owned<ioStringStream> in(ioStringStream::Create("input"));
    const Owned<ioStringStream> out(ioStringStream::Create(xnullstr));
    const Owned<ioStringStream> err(ioStringStream::Create(xnullstr));
    const Owned<rshProcess> process(
        rshProcess::Create(pair.near.get(), "command", "", in.get(), out.get(), err.get(), 0, 0));
    if (process == nullptr)
        return;
    const Owned<rshEvent> end(process->ExitEvent());
    require(end->evtEvent::Wait(5.0) == 1);
    require(std::strlen(out->getStr().CastToCString()) + std::strlen(err->getStr().CastToCString()) <= sent);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1 || size > 50000)
        return 0;
    const long before = openDescriptors();
    {
        StreamPair pair;
        try {
            if (data[0] % 4 != 0)
                pair.far->WriteInt(0); // started
            pair.far->WriteBytes(reinterpret_cast<const char*>(data + 1), static_cast<unsigned>(size - 1));
            pair.far->Flush(1);
            pair.farSocket->ShutdownOutput();
            run(pair, size);
        } catch (xthrowable* thrown) { // not started, or a stream that has ended
            xdelete(thrown);
        }
    }
    require(openDescriptors() == before);
    return 0;
}
