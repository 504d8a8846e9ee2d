#pragma once

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

/// Writes to a descriptor, straight through: what is written is in the pipe when the call returns. A pipe
/// without reader is a failed write, never a signal.
class BASE_API xoutputbuf : public xstreambuf
{
public:
    /// The descriptor is not owned.
    explicit xoutputbuf(btkHandle handle) : target(handle) {}
    btkHandle GetHandle() const override { return target; }

protected:
    int_type overflow(int_type byte) override;
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    std::streambuf* OnGetTryOBuf() override;
    btkBaseEvent* OnGetOutputEvent() override { return MakeOutputEvent(target); }

private:
    btkHandle target;
    xtryoutputbuf tryArea{*this};
};

/// Writes to the writing end of a pipe, which it owns. A value larger than the room that the pipe has would
/// block, one larger than the whole pipe always.
class BASE_API xopipebuf : public xoutputbuf
{
public:
    explicit xopipebuf(btkOutputPipe output) : xoutputbuf(output.Get()), end(std::move(output)) {}

protected:
    btkPlace GetTargetPlace() override { return {end.Get(), nullptr}; }

private:
    btkOutputPipe end;
};
