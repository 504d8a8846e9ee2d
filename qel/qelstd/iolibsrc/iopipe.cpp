#include "iopipe.h"

#include <memory>

#include "qeltable.h"
#include <qel/base/xpipebuf.h>

constinit qelClass ioPipeStream::rtti = {
    .name = "iolib::PipeStream",
    .parents = {QEL_PARENT(ioStream)},
};

constinit qelClass ioPipe::rtti = {
    .name = "iolib::Pipe",
};

ioPipeStream::ioPipeStream(xstreambuf* end, bool writable)
    : ioStream(ioSerializer::getBinary(), end, writable, !writable), pipeBuf(end)
{
}

ioPipeStream::~ioPipeStream()
{
    Close();
}

void ioPipeStream::OnClose()
{
    delete pipeBuf;
    pipeBuf = nullptr;
}

btkHandle ioPipeStream::GetInheritHandle()
{
    CheckOpen();
    return pipeBuf->GetHandle();
}

ioPipe* ioPipe::Create()
{
    btkOutputPipe output;
    btkInputPipe input;
    if (!btkAnonymousPipe::Create(output, input))
        return nullptr;
    std::unique_ptr<ioPipe> pipe(new (pDefMemMgr) ioPipe);
    auto writing = std::make_unique<xopipebuf>(std::move(output));
    pipe->writeEnd = new (pDefMemMgr) ioPipeStream(writing.get(), true);
    writing.release();
    auto reading = std::make_unique<xipipebuf>(std::move(input));
    pipe->readEnd = new (pDefMemMgr) ioPipeStream(reading.get(), false);
    reading.release();
    return pipe.release();
}

ioPipe::~ioPipe()
{
    delete writeEnd;
    delete readEnd;
}
