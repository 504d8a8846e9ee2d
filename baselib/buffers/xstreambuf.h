#pragma once

#include <cstddef>
#include <cstdint>
#include <streambuf>

#include <qel/base/btkevent.h>

class xbufferevent;

/// The buffer under a framework stream: a standard stream buffer that can also lend what is unread without
/// consuming it, test what can be written without writing it, and give events to wait for. Used by one thread
/// at a time.
class BASE_API xstreambuf : public std::streambuf
{
public:
    ~xstreambuf() override;
    xstreambuf(const xstreambuf&) = delete;
    xstreambuf& operator=(const xstreambuf&) = delete;

    // ---- try views

    /// A view of the unread input, from which reading never waits and consumes nothing; null when this buffer
    /// has none. It ends with what is there now. Valid until FreeTryIBuf; nothing else may be read meanwhile.
    std::streambuf* GetTryIBuf();
    void FreeTryIBuf();
    /// An area that takes what could be written now without waiting, and forgets it; null when this buffer
    /// has none. Valid until FreeTryOBuf.
    std::streambuf* GetTryOBuf();
    void FreeTryOBuf();
    /// Whether the last view or area came to its end: more was asked of it than it had.
    bool IsTryExhausted() const { return tryExhausted; }
    /// Whether the last area was asked for more than it can ever take at once.
    bool IsTryTooLarge() const { return tryTooLarge; }
    /// Whether the unread bytes that are held are those that the last view ran out of, and no others.
    virtual bool IsStarved() const { return false; }

    // ---- events; the caller owns them. Once the buffer is gone they are on for ever.

    /// On while there is input, held here or waiting in the source, and at the end of the input. Bytes that a
    /// try view has shown, and that were not enough, do not count. Null when this buffer has no such event.
    btkBaseEvent* GetInputEvent() { return OnGetInputEvent(); }
    /// On while something can be written; after an area that was too small, while more can be written than
    /// could be then. Null when this buffer has no such event.
    btkBaseEvent* GetOutputEvent() { return OnGetOutputEvent(); }

    /// Lets the host move the input, of which nothing is held, to the target of `to`, as far as it can do
    /// that for the two. What is left afterwards, all or nothing, is for an ordinary copy.
    void PassTo(xstreambuf& to);

    // ---- limits; a buffer that keeps none of a kind returns false

    /// How long reading, or writing, waits at most for the next byte to come, or to go, before it fails;
    /// Forever: no limit.
    virtual bool SetInputLimit(btkTimeval) { return false; }
    virtual bool SetOutputLimit(btkTimeval) { return false; }
    /// Whether the last transfer failed because its limit had passed.
    bool IsLimitPassed() const { return limitPassed; }
    /// How many bytes a text may have that is read from here; without limit at first.
    std::size_t GetTextLimit() const { return textLimit; }
    void SetTextLimit(std::size_t bytes) { textLimit = bytes; }

    // ---- what is known

    /// Whether no more input can arrive than what is held.
    bool IsEofReached() const { return eofReached; }
    /// Whether the input ended because it could not be read: a failed device, a reset connection.
    bool HasFailed() const { return failed; }
    /// Writes out what is pending, before the buffer is destroyed. False when bytes are lost by that of which
    /// the caller should know; where the reader has closed its end, nobody misses them.
    virtual bool Finish() { return true; }
    /// Gives what was read ahead back to the source, for others who read it. False where that cannot be done.
    virtual bool GiveBack() { return gptr() == egptr(); }
    /// The number of bytes that can be read without waiting.
    virtual std::size_t CountReadable() { return 0; }
    /// The host's handle behind the buffer; stays the buffer's. -1: none.
    virtual btkHandle GetHandle() const { return -1; }

protected:
    xstreambuf() = default;

    void SetEofReached(bool reached = true) { eofReached = reached; }
    void SetFailed(bool hasFailed) { failed = hasFailed; }
    void SetTryExhausted() { tryExhausted = true; }
    void SetTryTooLarge() { tryTooLarge = true; }
    void SetLimitPassed(bool passed) { limitPassed = passed; }

    /// Where the host has the next byte to be read or written; no handle when bytes are held here, or are not
    /// simply those of the descriptor.
    virtual btkPlace GetSourcePlace() { return {}; }
    virtual btkPlace GetTargetPlace() { return {}; }

    virtual std::streambuf* OnGetTryIBuf() { return nullptr; }
    virtual void OnFreeTryIBuf() {}
    virtual std::streambuf* OnGetTryOBuf() { return nullptr; }
    virtual void OnFreeTryOBuf() {}
    virtual btkBaseEvent* OnGetInputEvent() { return nullptr; }
    virtual btkBaseEvent* OnGetOutputEvent() { return nullptr; }

    /// New events over `handle` that ask this buffer too, with the operations below, and outlive it safely.
    btkBaseEvent* MakeInputEvent(btkHandle handle);
    btkBaseEvent* MakeOutputEvent(btkHandle handle);
    /// What is known about the input before the handle is asked. Called before each sleep of a wait while
    /// bytes are held, which a buffer tells with NoteHeld when it has taken some from its source; and always,
    /// once SetAsksInput was called.
    virtual btkBaseEvent::State OnAskInput() { return btkBaseEvent::Ask; }
    void NoteHeld();
    /// The same for the output events, which ask once after each NoteShort.
    virtual btkBaseEvent::State OnAskOutput() { return btkBaseEvent::Ask; }
    void NoteShort();
    /// What the events ask the host for, as poll takes it, in place of "readable".
    void SetInputConditions(short conditions) { inputConditions = conditions; }
    void SetAsksInput()
    {
        asksInput = true;
        NoteHeld();
    }
    /// The handle was found ready to read. False when there is no input after all.
    virtual bool OnInputPolled(short ready) { return ready != 0; }

    /// The try view has been read to its end: lends more with xtrystreambuf::ExtendBuf and answers true, or
    /// answers false when there is no more without waiting.
    virtual bool OnTryUnderflow() { return false; }

private:
    friend class xtrystreambuf;
    friend class xtryoutputbuf;
    friend class xbufferevent;

    xbufferevent* eventList = nullptr; // those that are alive
    bool asksInput = false;
    bool eofReached = false;
    bool failed = false;
    bool tryExhausted = false;
    bool tryTooLarge = false;
    bool limitPassed = false;
    short inputConditions = 0; // 0: readable
    std::size_t textLimit = static_cast<std::size_t>(-1);
};

/// How many bytes a text may have that is read from `buffer`, or from a try view of it.
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

/// A try area that takes a number of bytes and keeps none.
class BASE_API xtryoutputbuf : public std::streambuf
{
public:
    explicit xtryoutputbuf(xstreambuf& lender) : owner(lender) {}

    /// Takes `count` bytes from now on, of at most `most` that can ever be taken at once. When `broken`, what
    /// is too much failed, and would not just have to wait.
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
