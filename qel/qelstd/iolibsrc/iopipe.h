#pragma once

#include <qel/iobasestream.h>

class xipipebuf;
class xopipebuf;

/// A stream over one end of a pipe. Binary form unless set otherwise. Data is written to the pipe at once
/// unless setBuffered(true) was called. Writing waits while the pipe is full; without a reader it fails with
/// the state "I/O error" and raises no signal.
///
///     const auto pipe = qel::own(ioPipe::Create());
///     pipe->getWriteEnd()->setBuffered(true);
///     for (int i = 0; i < 1000; ++i)
///         pipe->getWriteEnd()->WriteInt(i);
///     pipe->getWriteEnd()->Flush(true);
class QEL_API ioPipeStream : public ioStream
{
    QEL_OBJECT(ioPipeStream); // "iolib::PipeStream"

public:
    ~ioPipeStream() override;

    /// True: data written to this end is gathered until it fills 4 KiB, or until Flush, Close, or the launch
    /// of a process that gets the stream; single values then cost no system call. False, the initial setting:
    /// writes the gathered data now, and each later value at once.
    /// @throws ioXStream  ioOutputNotAllowed: this is a reading end; ioStreamState: the gathered data cannot
    ///                    be written
    void setBuffered(bool buffered);

private:
    friend class ioPipe;

    explicit ioPipeStream(xipipebuf* end);
    explicit ioPipeStream(xopipebuf* end);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xstreambuf* pipeBuf;
    xopipebuf* outputBuf = nullptr; // the same object; null for a reading end
};

/// An anonymous pipe: bytes written to one end are read from the other. Each end is used by one thread or
/// process at a time. Not counted: freed with xdelete, which closes and frees both streams.
///
///     const auto pipe = qel::own(ioPipe::Create());
///     pipe->getWriteEnd()->WriteString("hello");
///     std::cout << pipe->getReadEnd()->ReadString("\n") << '\n';
class QEL_API ioPipe : public virtual xobject
{
    QEL_OBJECT(ioPipe); // "iolib::Pipe"
    QEL_NOT_COUNTED;

public:
    /// A new pipe, which the caller owns; null when the operating system has no descriptors left.
    static ioPipe* Create();
    ~ioPipe() override;
    ioPipe(const ioPipe&) = delete;
    ioPipe& operator=(const ioPipe&) = delete;

    /// The two streams; the pipe owns them. The reader sees the end of the data once the write end is closed.
    ioPipeStream* getWriteEnd() { return writeEnd; }
    ioPipeStream* getReadEnd() { return readEnd; }

private:
    ioPipe() = default;

    ioPipeStream* writeEnd = nullptr;
    ioPipeStream* readEnd = nullptr;
};
