#pragma once

#include <qel/iobasestream.h>

class btkInputPipe;
class btkOutputPipe;

/// A stream over one end of a pipe. Binary form unless set otherwise. What is written is in the pipe at once;
/// writing waits while the pipe is full, and fails with the state "I/O error", and no signal, when nobody can
/// read it.
class QEL_API ioPipeStream : public ioStream
{
    QEL_OBJECT(ioPipeStream); // "iolib::PipeStream"

public:
    ~ioPipeStream() override;

private:
    friend class ioPipe;

    ioPipeStream(xstreambuf* end, bool writable);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xstreambuf* pipeBuf;
};

/// An anonymous pipe: what is written to one end is read from the other. Each end is used by one thread or
/// process at a time. Not counted: freed with xdelete, which closes and frees both streams.
class QEL_API ioPipe : public virtual xobject
{
    QEL_OBJECT(ioPipe); // "iolib::Pipe"

public:
    /// Null when the host has no descriptors left.
    static ioPipe* Create();
    ~ioPipe() override;
    ioPipe(const ioPipe&) = delete;
    ioPipe& operator=(const ioPipe&) = delete;

    /// The two streams, which stay the pipe's. The reader sees the end of the data once the write end is
    /// closed.
    ioPipeStream* getWriteEnd() { return writeEnd; }
    ioPipeStream* getReadEnd() { return readEnd; }

private:
    ioPipe() = default;

    ioPipeStream* writeEnd = nullptr;
    ioPipeStream* readEnd = nullptr;
};
