#pragma once

// The pieces of both ends of the relay. Each direction has one bounded queue; nothing here waits for a peer,
// a command or a reader, except where it says so. A direction that can not go on leaves the others alone.

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include <qel/iobasestream.h>

#include "qelcaught_p.h"

/// What the messages after the start begin with.
enum rshTag : int {
    rshTagNone = 0,
    rshTagErr = 2,       ///< block: standard error of the command
    rshTagOut = 3,       ///< block: its standard output
    rshTagIn = 4,        ///< block: its standard input
    rshTagInEnd = 5,     ///< the end of its standard input
    rshTagExit = 6,      ///< integer: its exit code
    rshTagEnd = 7,       ///< from the server: nothing follows; the client answers the same
    rshTagTerminate = 8, ///< end the command, or interrupt it; may come as an urgent value, too
    rshTagInterrupt = 9
};

/// The reply to the request: 0, or this, an error code and a text.
constexpr int rshReplyFailed = 10;

template<class T>
using rshOwned = std::unique_ptr<T, qelDelete>;

/// Whether `work` ends without an exception of the framework; one that it throws is freed.
template<class Work>
bool rshSucceeds(Work work)
{
    try {
        work();
        return true;
    } catch (xthrowable* thrown) {
        const qelCaught freed(thrown);
        return false;
    }
}

/// Bytes on their way, in order; at most `capacity`.
class rshQueue
{
public:
    static constexpr std::size_t spare = 64; ///< room that blocks leave for messages without one
    static constexpr std::size_t capacity = 65536 + 8 + spare;

    std::size_t GetSize() const { return end - begin; }
    std::size_t GetRoom() const { return capacity - GetSize(); }
    /// Whether a block of a worthwhile size finds room.
    bool HasRoomForBlock() const { return GetRoom() > capacity / 2; }
    const char* GetHead() const { return bytes.get() + begin; }
    void Drop(std::size_t count);
    /// Room for up to GetRoom() bytes, which Add appends.
    char* GetTail();
    void Add(std::size_t count) { end += count; }
    /// Appends an integer as the connection has it.
    void PutInt(int value);
    void Clear() { begin = end = 0; }

private:
    std::unique_ptr<char[]> bytes{new char[capacity]};
    std::size_t begin = 0;
    std::size_t end = 0;
};

/// A queue that is emptied into a stream. What is for a stream that failed is dropped.
class rshOutlet
{
public:
    /// `stream` is not owned. Null: all is dropped.
    explicit rshOutlet(ioStream* stream);

    rshQueue queue;

    /// Writes what the stream takes. A file or the like takes all; something with a reader at its other end
    /// never makes this wait. False when the stream has failed.
    bool Pump();
    /// Puts what a wait needs to know into `events`.
    void AddTo(btkEvent::List& events);
    /// Of a stream that has a reader at its other end; else -1.
    btkHandle GetHandle() const { return handle; }
    bool IsFailed() const { return isFailed; }
    /// From now on all is dropped.
    void Fail();

private:
    void Write();

    ioStream* target;
    btkHandle handle = -1; // where the stream has a reader at its other end
    std::unique_ptr<btkEvent> readyEvent;
    bool isFailed = false;
};

/// The source of a direction.
class rshInlet
{
public:
    /// `stream` is not owned.
    explicit rshInlet(ioStream* stream);

    /// Puts what a wait needs to know into `events` while there may be more and `to` has room.
    void AddTo(btkEvent::List& events, const rshQueue& to);
    /// Moves what is there, at most `most` bytes, into `to`, as one block behind `tag`. Nothing to be moved
    /// though the last wait found the source ready is the end. False when nothing was moved.
    bool Move(rshTag tag, rshQueue& to, std::size_t most = rshQueue::capacity);
    /// What is there now is the rest, whoever goes on writing: behind it is the end.
    void TakeOnlyTheRest();
    bool IsEnded() const { return isEnded; }

private:
    ioStream* source;
    rshOwned<ioEvent> input;
    std::optional<std::size_t> rest; // how much is to be taken still, once that is settled
    bool isAsked = false;            // whether the last wait looked at it
    bool isEnded = false;
};

/// Takes the messages of the other end apart.
class rshReceiver
{
public:
    explicit rshReceiver(ioStream& stream);
    virtual ~rshReceiver() = default;

    /// Takes what is there, until a block finds no room. False when the connection has failed, or what comes
    /// over it is no message.
    bool Receive();
    /// Puts what a wait needs to know into `events`, unless a block waits for room.
    void AddTo(btkEvent::List& events);
    /// Whether a block waits for room, so that nothing is read.
    bool IsBlocked() const;
    /// How many numbers and parts of blocks have been taken; goes round.
    unsigned CountTaken() const { return taken; }

protected:
    /// Where the blocks behind `tag` go; null when `tag` has no block.
    virtual rshOutlet* OutletOf(int tag) = 0;
    /// A message without a block; `value` is the integer of rshTagExit. False: nothing more is to be read.
    virtual bool OnMessage(int tag, int value) = 0;

private:
    enum Step { Went, Waits, Failed };
    Step ReadBlock();
    Step ReadNumber();
    Step Take(int number);

    ioStream& connection;
    rshOwned<ioEvent> input;
    int awaiting = rshTagNone; // whose integer is awaited, or whose block is being read
    rshOutlet* outlet = nullptr;
    int blockLeft = 0;
    unsigned taken = 0;
    bool isDone = false;
};

/// Reads the parts of a request or a reply.
class rshPartReader
{
public:
    /// Gives up at the time `latest`, and when one of `stops` is signaled, of which each may be null.
    rshPartReader(ioStream& connection, btkTimeval latest, std::initializer_list<btkEvent*> stops = {});

    /// Both wait. False when it was given up, or a text is no sane one.
    /// @throws ioXStream  of the connection
    bool ReadInt(int& value);
    bool ReadText(std::string& text);

private:
    bool WaitForInput();

    // More than a host passes to a program, also when every character is quoted: what is too long is the
    // host's to say.
    static constexpr int greatestText = 8 << 20;

    ioStream& stream;
    rshOwned<ioEvent> input;
    btkEvent::List stopEvents;
    btkTimeval end;
};
