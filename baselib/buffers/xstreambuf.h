#pragma once

#include <cstddef>
#include <cstdint>
#include <streambuf>

#include <qel/base/btkevent.h>

class xbufferevent;

/// The buffer under a framework stream: a standard stream buffer that can also lend unread bytes without
/// consuming them, test whether a value can be written without writing it, and create events to wait for.
/// Used by one thread at a time.
class BASE_API xstreambuf : public std::streambuf
{
public:
    ~xstreambuf() override;
    xstreambuf(const xstreambuf&) = delete;
    xstreambuf& operator=(const xstreambuf&) = delete;

    // ---- try views

    /// Returns a view of the unread input, from which reading never waits and consumes nothing; null when
    /// this buffer has none. It ends with the input available now. Valid until FreeTryIBuf; nothing else may
    /// be read meanwhile.
    std::streambuf* GetTryIBuf();
    void FreeTryIBuf();
    /// Returns an area that accepts as much as could be written now without waiting, and discards it; null
    /// when this buffer has none. Valid until FreeTryOBuf.
    std::streambuf* GetTryOBuf();
    void FreeTryOBuf();
    /// Whether more was requested from the last view or area than it had.
    bool IsTryExhausted() const { return tryExhausted; }
    /// Whether the last area was offered more than it can ever accept at once.
    bool IsTryTooLarge() const { return tryTooLarge; }
    /// Whether the buffered unread bytes are exactly those that were not enough for the last view.
    virtual bool IsStarved() const { return false; }

    // ---- events; the caller owns them. Once the buffer is destroyed they are on forever.

    /// Returns an event that is on while there is input, buffered here or waiting in the source, and at the
    /// end of the input. Bytes that a try view has shown, and that were not enough, do not count. Null when
    /// this buffer has no such event.
    btkBaseEvent* GetInputEvent() { return OnGetInputEvent(); }
    /// Returns an event that is on while something can be written; after an area that was too small, while
    /// more can be written than could be then. Null when this buffer has no such event.
    btkBaseEvent* GetOutputEvent() { return OnGetOutputEvent(); }

    /// Transfers the input inside the kernel to the target of `to`, as far as the kernel supports it for the
    /// two; no input may be buffered. An ordinary copy must follow for the rest, which may be all or
    /// nothing.
    void PassTo(xstreambuf& to);

    // ---- limits; a buffer that does not support one returns false

    /// Limits how long reading, or writing, waits for the next byte before it fails; Forever: no limit.
    virtual bool SetInputLimit(btkTimeval) { return false; }
    virtual bool SetOutputLimit(btkTimeval) { return false; }
    /// Whether the last transfer failed because its limit had passed.
    bool IsLimitPassed() const { return limitPassed; }
    /// Returns the greatest size in bytes of a text read from here; no limit at first.
    std::size_t GetTextLimit() const { return textLimit; }
    void SetTextLimit(std::size_t bytes) { textLimit = bytes; }

    // ---- state

    /// Whether no more input can arrive than is buffered.
    bool IsEofReached() const { return eofReached; }
    /// Whether the input ended because of a read failure: a failed device, a reset connection.
    bool HasFailed() const { return failed; }
    /// Writes out pending output before the buffer is destroyed. False when bytes are lost and the caller
    /// should know; output lost because the reader has closed its end is not reported.
    virtual bool Finish() { return true; }
    /// Returns read-ahead bytes to the source, for other readers. False where that is impossible.
    virtual bool GiveBack() { return gptr() == egptr(); }
    /// Returns the number of bytes that can be read without waiting.
    virtual std::size_t CountReadable() { return 0; }
    /// Returns the descriptor behind the buffer; the buffer keeps ownership. -1: none.
    virtual btkHandle GetHandle() const { return -1; }

protected:
    xstreambuf() = default;

    /// Each of these sets what the query of its name returns.
    void SetEofReached(bool reached = true) { eofReached = reached; }
    void SetFailed(bool hasFailed) { failed = hasFailed; }
    void SetTryExhausted() { tryExhausted = true; }
    void SetTryTooLarge() { tryTooLarge = true; }
    void SetLimitPassed(bool passed) { limitPassed = passed; }

    /// overflow for a buffer that implements xsputn.
    int_type PutOne(int_type byte);

    /// Returns the descriptor and position of the next byte to be read or written; no descriptor when bytes
    /// are buffered here, or are not simply those of the descriptor.
    virtual btkPlace GetSourcePlace() { return {}; }
    virtual btkPlace GetTargetPlace() { return {}; }

    /// Returns the view that reads without waiting, and ends its use; null: there is none.
    virtual std::streambuf* OnGetTryIBuf() { return nullptr; }
    virtual void OnFreeTryIBuf() {}
    /// The same for writing.
    virtual std::streambuf* OnGetTryOBuf() { return nullptr; }
    virtual void OnFreeTryOBuf() {}
    /// Returns a new event that is on while there is input, or room for output; null: there is none. The
    /// caller owns it.
    virtual btkBaseEvent* OnGetInputEvent() { return nullptr; }
    virtual btkBaseEvent* OnGetOutputEvent() { return nullptr; }

    /// Creates events over `handle` that also call the operations below, and may safely outlive this buffer.
    btkBaseEvent* MakeInputEvent(btkHandle handle);
    btkBaseEvent* MakeOutputEvent(btkHandle handle);
    /// Returns the state of the input known before the handle is polled. Called before each sleep of a wait
    /// while bytes are buffered, which a buffer announces with NoteHeld when it has taken some from its
    /// source; and always, once SetAsksInput was called.
    virtual btkBaseEvent::State OnAskInput() { return btkBaseEvent::Ask; }
    void NoteHeld();
    /// The same for the output events, which call it once after each NoteShort.
    virtual btkBaseEvent::State OnAskOutput() { return btkBaseEvent::Ask; }
    void NoteShort();
    /// Sets the readiness that the input's events wait for, in place of btkReadable.
    void SetAwaitedInput(btkReadiness awaited) { awaitedInput = awaited; }
    void SetAsksInput()
    {
        asksInput = true;
        NoteHeld();
    }
    /// Called when the handle was found ready to read. False when there is no input after all.
    virtual bool OnInputPolled(btkReadiness ready) { return ready != btkNotReady; }

    /// Called when the try view has been read to its end: lends more with xtrystreambuf::ExtendBuf and
    /// returns true, or returns false when there is no more without waiting.
    virtual bool OnTryUnderflow() { return false; }

private:
    friend class xtrystreambuf;
    friend class xtryoutputbuf;
    friend class xbufferevent;

    xbufferevent* eventList = nullptr; // the live ones
    bool asksInput = false;
    bool eofReached = false;
    bool failed = false;
    bool tryExhausted = false;
    bool tryTooLarge = false;
    bool limitPassed = false;
    btkReadiness awaitedInput = btkReadable;
    std::size_t textLimit = static_cast<std::size_t>(-1);
};

/// Returns the greatest size in bytes of a text read from `buffer`, or from a try view of it.
BASE_API std::size_t xGetTextLimit(const std::streambuf& buffer);

/// A try view that lends bytes of its owner's buffer.
class BASE_API xtrystreambuf : public std::streambuf
{
public:
    explicit xtrystreambuf(xstreambuf& lender) : owner(lender) {}

    /// Lends `count` bytes from `start`, which the view does not change.
    void TakeBuf(const char* start, std::size_t count) { ExtendBuf(start, 0, count); }
    /// Lends `count` bytes from `start`; the first `read` of them have been read.
    void ExtendBuf(const char* start, std::size_t read, std::size_t count)
    {
        char* const first = const_cast<char*>(start);
        setg(first, first + read, first + count);
    }
    /// Ends the loan.
    void FreeBuf() { setg(nullptr, nullptr, nullptr); }
    const xstreambuf& GetOwner() const { return owner; }

protected:
    int_type underflow() override;

private:
    xstreambuf& owner;
};

/// A try area that accepts a number of bytes and discards them.
class BASE_API xtryoutputbuf : public std::streambuf
{
public:
    explicit xtryoutputbuf(xstreambuf& lender) : owner(lender) {}

    /// Accepts `count` bytes from now on, of at most `most` that can ever be accepted at once. With `broken`,
    /// a larger value has failed, rather than having to wait.
    void SetRoom(std::size_t count, bool broken, std::size_t most = SIZE_MAX)
    {
        room = count;
        largest = most;
        isBroken = broken;
    }

protected:
    int_type overflow(int_type byte) override;
    std::streamsize xsputn(const char* from, std::streamsize count) override;

private:
    xstreambuf& owner;
    std::size_t room = 0;
    std::size_t largest = 0;
    bool isBroken = false;
};
