#pragma once

// The pieces of both ends of the relay. Each direction has one bounded queue; nothing here waits for a peer,
// a command or a reader unless documented. A blocked direction does not affect the others.

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include <qel/iobasestream.h>

#include "qelcaught.h"

/// The first integer of each message after the start.
enum rshTag : int {
    rshTagNone = 0,
    rshTagErr = 2,       ///< block: standard error of the command
    rshTagOut = 3,       ///< block: its standard output
    rshTagIn = 4,        ///< block: its standard input
    rshTagInEnd = 5,     ///< the end of its standard input
    rshTagExit = 6,      ///< integer: its exit code
    rshTagEnd = 7,       ///< from the server: nothing follows; the client replies with the same
    rshTagTerminate = 8, ///< terminate the command, or interrupt it; may also arrive as an urgent integer
    rshTagInterrupt = 9
};

/// The reply to the request: 0, or this, an error code and a text.
constexpr int rshReplyFailed = 10;

template<class T>
using rshOwned = std::unique_ptr<T, qelDelete>;

/// Whether `work` returns without an exception of the framework; a thrown one is freed.
template<class Work>
bool rshSucceeds(Work work)
{
    try {
        work();
        return true;
    } catch (xthrowable* thrown) {
        const qel::caught freed(thrown);
        return false;
    }
}

/// A bounded FIFO queue of bytes; at most `capacity`.
class rshQueue
{
public:
    static constexpr std::size_t spare = 64; ///< room that blocks leave for messages without one
    static constexpr std::size_t capacity = 65536 + 8 + spare;

    std::size_t GetSize() const { return end - begin; }
    std::size_t GetRoom() const { return capacity - GetSize(); }
    /// Whether there is room for a block of a worthwhile size.
    bool HasRoomForBlock() const { return GetRoom() > capacity / 2; }
    const char* GetHead() const { return bytes.get() + begin; }
    void Drop(std::size_t count);
    /// Room for up to GetRoom() bytes, which Add appends.
    char* GetTail();
    void Add(std::size_t count) { end += count; }
    /// Appends an integer in the form of the connection.
    void PutInt(int value);
    void Clear() { begin = end = 0; }

private:
    std::unique_ptr<char[]> bytes{new char[capacity]};
    std::size_t begin = 0;
    std::size_t end = 0;
};

/// A queue that is drained into a stream. Data for a failed stream is dropped.
class rshOutlet
{
public:
    /// `stream` is not owned. Null: all is dropped.
    explicit rshOutlet(ioStream* stream);

    rshQueue queue;

    /// Writes as much as the stream accepts. A file accepts all; a stream with a reader at its other end
    /// never blocks this call. False when the stream has failed.
    bool Pump();
    /// Adds the events to wait for to `events`.
    void AddTo(btkEvent::List& events);
    /// The handle of a stream that has a reader at its other end; else -1.
    btkHandle GetHandle() const { return handle; }
    bool IsFailed() const { return isFailed; }
    /// Drops all data from now on.
    void Fail();

private:
    void Write();

    ioStream* target;
    btkHandle handle = -1; // if the stream has a reader at its other end
    std::unique_ptr<btkEvent> readyEvent;
    bool isFailed = false;
};

/// The source of a direction.
class rshInlet
{
public:
    /// `stream` is not owned.
    explicit rshInlet(ioStream* stream);

    /// Adds the events to wait for to `events` while there may be more data and `to` has room.
    void AddTo(btkEvent::List& events, const rshQueue& to);
    /// Moves the available bytes, at most `most`, into `to`, as one block behind `tag`. No bytes although the
    /// last wait found the source ready means the end. False when nothing was moved.
    bool Move(rshTag tag, rshQueue& to, std::size_t most = rshQueue::capacity);
    /// Treats the bytes available now as the last ones, even if a process continues to write.
    void TakeOnlyTheRest();
    bool IsEnded() const { return isEnded; }

private:
    ioStream* source;
    rshOwned<ioEvent> input;
    std::optional<std::size_t> rest; // the bytes still to be read, once TakeOnlyTheRest has fixed them
    bool isAsked = false;            // whether the last wait included it
    bool isEnded = false;
};

/// Parses the messages of the other end.
class rshReceiver
{
public:
    explicit rshReceiver(ioStream& stream);
    virtual ~rshReceiver() = default;

    /// Reads the available messages until there is no room for a block. False when the connection has failed
    /// or the data is not a valid message.
    bool Receive();
    /// Adds the events to wait for to `events`, unless a block waits for room.
    void AddTo(btkEvent::List& events);
    /// Whether a block waits for room, so that nothing is read.
    bool IsBlocked() const;
    /// The number of integers and parts of blocks read so far; wraps around.
    unsigned CountTaken() const { return taken; }

protected:
    /// The outlet for the blocks of `tag`; null when `tag` has no block.
    virtual rshOutlet* OutletOf(int tag) = 0;
    /// A message without a block; `value` is the integer of rshTagExit. False: stops reading.
    virtual bool OnMessage(int tag, int value) = 0;

private:
    enum Step { Went, Waits, Failed };
    Step ReadBlock();
    Step ReadNumber();
    Step Take(int number);

    ioStream& connection;
    rshOwned<ioEvent> input;
    int awaiting = rshTagNone; // the tag whose integer is awaited or whose block is being read
    rshOutlet* outlet = nullptr;
    int blockLeft = 0;
    unsigned taken = 0;
    bool isDone = false;
};

/// Reads the parts of a request or a reply.
class rshPartReader
{
public:
    /// Reading fails at the time `latest`, and when one of `stops` is signaled; each of these may be null.
    rshPartReader(ioStream& connection, btkTimeval latest, std::initializer_list<btkEvent*> stops = {});

    /// Both wait. False at the deadline, after a stop event, or for an invalid text.
    /// @throws ioXStream  of the connection
    bool ReadInt(int& value);
    bool ReadText(std::string& text);

private:
    bool WaitForInput();
    // A peer that sends a few bytes at a time wakes this thread less and less often, down to eight times a second.
    bool RestAfter(unsigned received);
    bool Wait(const btkEvent::List& events, btkTimeval limit);

    // More than the kernel passes to a program, even when every character is quoted: the kernel reports what
    // is too long.
    static constexpr int greatestText = 8 << 20;

    ioStream& stream;
    rshOwned<ioEvent> input;
    btkEvent::List stopEvents;
    btkTimeval end;
    btkTimeval pause; // of the last part
};
