#pragma once

#include <qel/iobasestream.h>

class xipipebuf;
class xopipebuf;

/// A stream over one end of a pipe. Binary form unless set otherwise. What is written is in the pipe at once,
/// unless setBuffered says otherwise; writing waits while the pipe is full, and fails with the state "I/O
/// error", and no signal, when nobody can read it.
class QEL_API ioPipeStream : public ioStream
{
    QEL_OBJECT(ioPipeStream); // "iolib::PipeStream"

public:
    ~ioPipeStream() override;

    /// True: what is written to this end is gathered until it fills 4 KiB, Flush, Close, or the launch of a
    /// process that gets the stream; values cost no system call each then. False, as at first: what was
    /// gathered is written, and so is each value from now on.
    /// @throws ioXStream  ioOutputNotAllowed: this is a reading end; ioStreamState: what was gathered cannot
    /// be
    ///                    written
    void setBuffered(bool buffered);

private:
    friend class ioPipe;

    explicit ioPipeStream(xipipebuf* end);
    explicit ioPipeStream(xopipebuf* end);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xstreambuf* pipeBuf;
    xopipebuf* outputBuf = nullptr; // the same, of a writing end
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
