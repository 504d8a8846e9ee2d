#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <qel/base/btkfd.h>
#include <qel/base/nmswire.h>

// The messages between a name server and its keeper. The keeper is a program that keeps the server's records
// in a store which the name servers of many machines share, and sends back what the others keep there. A
// message is the number of the bytes that follow, its kind, and the parts in their order. Both programs are of
// one release.

/// The kinds of messages, and their parts. A number has 8 bytes, a text its size before it.
enum class nmsStoreMessage : unsigned char {
    // from the name server
    enter = 1, ///< number of the record, text: start of its process, record
    leave,     ///< number of the record, which is removed
    ready,     ///< the records of the beginning are complete
    // from the keeper
    held,    ///< number of the record, number: its revision in the store
    taken,   ///< number of the record, whose name another machine has
    left,    ///< number of the record, which is no longer in the store
    refused, ///< number of the record, text: the store's reason
    reload,  ///< all records of other machines follow
    other,   ///< text: key, number: revision, text: host, record
    gone,    ///< text: key of a record of another machine
    loaded,  ///< they are complete
    state,   ///< number: 1 when the records may be out of date, text: the reason, or where they are kept
    // from the name server
    again, ///< text: the first, text: the last key of records of other machines that are to be sent again
    // from the keeper
    sent ///< the records of one `again`, as far as they exist, have been sent
};

/// Appends a part of a message to `to`.
BASE_API void nmsPutNumber(std::string& to, std::uint64_t value);
BASE_API void nmsPutText(std::string& to, std::string_view text);

/// Parses parts, from a file or a peer. After an incomplete part no more is read, and results are empty.
class BASE_API nmsPartReader
{
public:
    explicit nmsPartReader(std::string_view parts) : rest(parts) {}

    bool IsSound() const { return isSound; }
    bool IsAtEnd() const { return isSound && rest.empty(); }
    /// Returns the number of the bytes that have not been taken.
    std::size_t GetLeft() const { return rest.size(); }
    std::string_view Take(std::size_t size);
    unsigned TakeInt();
    std::uint64_t TakeNumber();
    std::string TakeText() { return std::string(Take(TakeInt())); }
    nmsFields TakeRecord();

private:
    std::string_view rest;
    bool isSound = true;
};

/// One end of a connection for messages, which never waits. Used by one thread.
class BASE_API nmsChannel
{
public:
    explicit nmsChannel(btkFd end = btkFd()) : socket(std::move(end)) {}

    /// False once the other end has closed, or sent something other than messages.
    bool IsOpen() const { return static_cast<bool>(socket); }
    btkHandle GetHandle() const { return socket.Get(); }
    /// Whether messages wait to be sent, when the handle is writable.
    bool IsBehind() const { return sent < out.size(); }
    void Send(nmsStoreMessage kind, std::string_view parts = {});
    void Flush();
    /// Reads once what has arrived, and calls `handle` for each complete message.
    void Receive(const std::function<void(nmsStoreMessage kind, nmsPartReader parts)>& handle);

private:
    btkFd socket;
    std::string in;
    std::string out;
    std::size_t sent = 0;
};

/// Starts a keeper by its command line (btkcmdline.h), with the other end of the connection as its standard
/// input. It exits when the connection closes. Owns nothing, with the reason in errno, when it cannot run.
BASE_API btkFd nmsStartKeeper(const std::string& command);
/// Whether the system's resolver gives, within `limit`, a loopback address for the name, which is none by which
/// other machines could reach this one.
BASE_API bool nmsIsLoopbackHost(const char* host, btkTimeval limit);
/// Returns the time since the machine started, with the time that it slept.
BASE_API btkTimeval nmsTimeOfMachine();
/// Returns the id of the machine's run, for which ids and start times of processes are valid.
BASE_API std::string nmsRunOfMachine();
