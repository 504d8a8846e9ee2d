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

/// Writes to a descriptor, straight through unless it gathers: what is written is in the pipe when the call
/// returns. A pipe without reader is a failed write, never a signal.
class BASE_API xoutputbuf : public xstreambuf
{
public:
    /// The descriptor is not owned.
    explicit xoutputbuf(btkHandle handle) : target(handle) {}
    btkHandle GetHandle() const override { return target; }

    /// True: what is written is gathered until it fills 4 KiB, pubsync or Finish. False: what was gathered is
    /// written; returns whether that worked.
    bool SetGathers(bool gathers);
    bool Finish() override;

protected:
    int_type overflow(int_type byte) override;
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
    std::size_t shortRoom = 0; // the room that was too small for the last try; 0: none was
};

/// Writes to the writing end of a pipe, which it owns. A value larger than the room that the pipe has would
/// block; one larger than the whole pipe is written in parts and cannot be tried.
class BASE_API xopipebuf : public xoutputbuf
{
public:
    explicit xopipebuf(btkOutputPipe output) : xoutputbuf(output.Get()), end(std::move(output)) {}
    /// Writes what was gathered; what cannot be written is lost. Ask Finish first to know.
    ~xopipebuf() override { pubsync(); }

protected:
    btkPlace GetTargetPlace() override { return {pubsync() == 0 ? end.Get() : -1, nullptr}; }

private:
    btkOutputPipe end;
};
