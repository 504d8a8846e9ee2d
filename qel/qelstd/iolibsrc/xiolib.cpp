#include "xiolib.h"

#include <memory>

#include <qel/base/btkabort.h>
#include <qel/base/xstdbuf.h>

// The standard streams.

namespace {

/// A stream over the standard input, output or error.
class StandardStream : public ioStream
{
public:
    ~StandardStream() override { Release(); }

protected:
    StandardStream(std::unique_ptr<xstreambuf> buffer, bool writable)
        : ioStream(ioSerializer::getAscii(), buffer.get(), writable, !writable), stdBuf(std::move(buffer))
    {
    }

private:
    void OnClose() override { stdBuf.reset(); }
    btkHandle GetInheritHandle() override { return GetSettledHandle(); }

    std::unique_ptr<xstreambuf> stdBuf;
};

class ioStdinStream : public StandardStream
{
public:
    ioStdinStream() : StandardStream(std::make_unique<xistdbuf>(), false) {}
};

class ioStdoutStream : public StandardStream
{
public:
    explicit ioStdoutStream(int type) : StandardStream(std::make_unique<xostdbuf>(type), true) {}
};

// A stream made on first use and destroyed with the library.
struct Slot
{
    ~Slot()
    {
        delete stream;
        stream = nullptr;
    }
    template<class Stream, class... Type>
    ioStream* Get(Type... type)
    {
        if (stream == nullptr)
            stream = new (pDefMemMgr) Stream(type...);
        return stream;
    }

    ioStream* stream = nullptr;
};

constinit Slot standardInput, standardOutput, standardError;

} // namespace

void ioStream::SettleStandardStreams()
{
    xostdbuf::FlushAll();
    if (ioStream* const input = standardInput.stream; input != nullptr && input->isOpen)
        input->streamBuf->GiveBack();
}

ioStream* ioStream::getStdin()
{
    return standardInput.Get<ioStdinStream>();
}

ioStream* ioStream::getStdout()
{
    return standardOutput.Get<ioStdoutStream>(0);
}

ioStream* ioStream::getStderr()
{
    return standardError.Get<ioStdoutStream>(1);
}

void ioStream::setStdin(ioStream*)
{
    QEL_ABORT("ioStream::setStdin is not supported");
}

void ioStream::setStdout(ioStream*)
{
    QEL_ABORT("ioStream::setStdout is not supported");
}

void ioStream::setStderr(ioStream*)
{
    QEL_ABORT("ioStream::setStderr is not supported");
}
