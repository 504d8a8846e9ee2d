#include "iopipe.h"

#include <memory>

#include <qel/base/xpipebuf.h>

#include "qeltable.h"

constinit qelClass ioPipeStream::rtti = {
    .name = "iolib::PipeStream",
    .parents = {QEL_PARENT(ioStream)},
};

constinit qelClass ioPipe::rtti = {
    .name = "iolib::Pipe",
};

ioPipeStream::ioPipeStream(xipipebuf* end)
    : ioStream(ioSerializer::getBinary(), end, false, true), pipeBuf(end)
{
}

ioPipeStream::ioPipeStream(xopipebuf* end)
    : ioStream(ioSerializer::getBinary(), end, true, false), pipeBuf(end), outputBuf(end)
{
}

ioPipeStream::~ioPipeStream()
{
    Release();
}

void ioPipeStream::OnClose()
{
    delete pipeBuf;
    pipeBuf = nullptr;
    outputBuf = nullptr;
}

void ioPipeStream::setBuffered(bool buffered)
{
    CheckWritable();
    if (!outputBuf->SetGathers(buffered))
        ThrowState(stateBad);
}

btkHandle ioPipeStream::GetInheritHandle()
{
    return GetSettledHandle();
}

ioPipe* ioPipe::Create()
{
    btkOutputPipe output;
    btkInputPipe input;
    if (!btkAnonymousPipe::Create(output, input))
        return nullptr;
    std::unique_ptr<ioPipe> pipe(new (pDefMemMgr) ioPipe);
    auto writing = std::make_unique<xopipebuf>(std::move(output));
    pipe->writeEnd = new (pDefMemMgr) ioPipeStream(writing.get());
    writing.release();
    auto reading = std::make_unique<xipipebuf>(std::move(input));
    pipe->readEnd = new (pDefMemMgr) ioPipeStream(reading.get());
    reading.release();
    return pipe.release();
}

ioPipe::~ioPipe()
{
    delete writeEnd;
    delete readEnd;
}
