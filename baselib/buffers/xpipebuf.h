#pragma once

#include <memory>

#include <qel/base/btkpipe.h>
#include <qel/base/xinputbuf.h>

/// Reads from the reading end of a pipe, which it owns.
class BASE_API xipipebuf : public xinputbuf
{
public:
    explicit xipipebuf(btkInputPipe input) : xinputbuf(input.Get()), end(std::move(input)) {}

protected:
    btkPlace GetSourcePlace() override { return {Held() == 0 ? end.Get() : -1, nullptr}; }

private:
    btkInputPipe end;
};

/// Writes to a descriptor, unbuffered unless it gathers: written bytes are in the pipe when the call returns.
/// Writing to a pipe without a reader fails, and never raises a signal.
class BASE_API xoutputbuf : public xstreambuf
{
public:
    /// The descriptor is not owned.
    explicit xoutputbuf(btkHandle handle) : target(handle) {}
    btkHandle GetHandle() const override { return target; }

    /// True: output is gathered until it fills 4 KiB, pubsync or Finish. False: writes gathered output;
    /// returns whether that succeeded.
    bool SetGathers(bool gathers);
    bool Finish() override;

protected:
    int_type overflow(int_type byte) override { return PutOne(byte); }
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    int sync() override;
    std::streambuf* OnGetTryOBuf() override;
    void OnFreeTryOBuf() override;
    btkBaseEvent* OnGetOutputEvent() override { return MakeOutputEvent(target); }
    btkBaseEvent::State OnAskOutput() override;

private:
    std::size_t Gathered() const { return static_cast<std::size_t>(pptr() - pbase()); }

    btkHandle target;
    std::unique_ptr<char[]> area; // null unless it gathers
    xtryoutputbuf tryArea{*this};
    std::size_t triedRoom = 0;
    // The room that was too small for the last try; 0: none was.
    std::size_t shortRoom = 0;
};

/// Writes to the writing end of a pipe, which it owns. A value larger than the pipe's free room would block;
/// one larger than the whole pipe is written in parts and cannot be tried.
class BASE_API xopipebuf : public xoutputbuf
{
public:
    explicit xopipebuf(btkOutputPipe output) : xoutputbuf(output.Get()), end(std::move(output)) {}
    /// Writes gathered output; output that cannot be written is lost. Call Finish first to find out.
    ~xopipebuf() override { pubsync(); }

protected:
    btkPlace GetTargetPlace() override { return {pubsync() == 0 ? end.Get() : -1, nullptr}; }

private:
    btkOutputPipe end;
};
