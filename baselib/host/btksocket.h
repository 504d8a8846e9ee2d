#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include <qel/base/btkfd.h>

class btkBaseEvent;

/// A TCP socket over IPv4 or IPv6. Its descriptor is closed on exec. Used by one thread at a time.
class BASE_API btkSocket
{
public:
    btkSocket(const btkSocket&) = delete;
    btkSocket& operator=(const btkSocket&) = delete;

    bool IsOpen() const { return static_cast<bool>(fd); }
    /// The descriptor, which stays the socket's; -1 when it is not open.
    btkHandle GetHandle() const { return fd.Get(); }

    /// Waits until the socket can be read or has a connection to accept (`conditions` 1), can be written
    /// (2), or either (3). The conditions that hold; 0 when waiting failed, -1 when `limit` has passed.
    int Wait(btkTimeval limit, int conditions) const;

    /// This end's port; 0 when the socket is not open.
    int GetPortN() const;
    /// This end's address, as numbers; IPv4 is dotted, IPv6 as `2001:db8::1`. Empty when it is not open.
    std::string GetLocalAddrStr() const;
    /// Whether that address is a loopback one.
    bool IsOnLoopback() const;

protected:
    btkSocket() = default;
    ~btkSocket() = default;

    btkFd fd;
};

/// Tells those who serve a connection when its time is up. Shared by the one who tells, in any thread or a
/// signal handler, and by the sockets whose waits it ends.
class BASE_API btkStopSign
{
public:
    /// `event` becomes readable once the end is known; not owned.
    explicit btkStopSign(btkHandle event) : handle(event) {}

    /// Sets the end, before the event becomes readable. Forever, as at first: there is none.
    void SetEnd(btkTimeval time) { end.store(time, std::memory_order_release); }
    btkTimeval GetEnd() const { return end.load(std::memory_order_acquire); }
    bool IsKnown() const { return !GetEnd().IsForever(); }
    bool IsOver() const { return IsKnown() && GetEnd() <= btkTimeval::Now(); }

    /// The event's handle, -1 once it is closed: Leave is called before that.
    btkHandle GetHandle() const { return handle.load(std::memory_order_acquire); }
    void Leave() { handle.store(-1, std::memory_order_release); }

private:
    std::atomic<btkHandle> handle;
    std::atomic<btkTimeval> end = btkTimeval::Forever();
};

/// A connection: a stream of bytes in each direction, and beside it urgent values of four bytes. What
/// overtakes is the news that a value has come; reading it moves the ordinary bytes sent before it into
/// memory, from where they are read later as if nothing had happened.
///
/// TCP has one urgent mark for each direction, and a sender cannot know how far its peer has read: a second
/// value that arrives before the peer has read past the mark of the first takes that mark. Then the first is
/// no urgent value any more, and its four bytes stay among the ordinary ones, whose values they corrupt.
/// SetUrgentSpacing makes that rare.
///
/// A peer that has vanished without a word, as when its machine has lost its power, is asked for after a
/// minute of silence; receiving fails with ETIMEDOUT a minute later.
///
/// Failed calls leave the reason in errno. No call raises SIGPIPE, and none ends because of a signal.
class BASE_API btkStreamSocket : public btkSocket
{
public:
    btkStreamSocket();
    ~btkStreamSocket();

    /// Connects to `port` (1..65535) of `host`, a name or an address as numbers. Null, the empty text, this
    /// machine's own name and `localhost` mean this machine, over its loopback. All addresses of a name are
    /// tried, and everything together, the name's resolution too, takes at most `limit`. What was connected
    /// before is closed.
    bool Connect(const char* host, int port, btkTimeval limit);
    /// Takes over a connected descriptor and owns it.
    void Adopt(btkFd connected);
    void Close();
    /// Ends the output: the peer reads what was sent, then the end. Reading goes on.
    void ShutdownOutput();

    /// How long Send and Recv wait at most for the next byte to go or to come before they fail with
    /// ETIMEDOUT; without limit at first.
    void SetRecvLimit(btkTimeval limit) { recvLimit = limit; }
    void SetSendLimit(btkTimeval limit) { sendLimit = limit; }
    /// Whether the last call failed with ETIMEDOUT because of a limit of this end, not because the peer has
    /// vanished.
    bool IsLimitPassed() const { return limitPassed; }
    /// From the end that `sign` tells of, Send and Recv fail with ETIMEDOUT, and what waits then ends. Null:
    /// none.
    void SetStopSign(std::shared_ptr<const btkStopSign> sign) { stopSign = std::move(sign); }
    /// How many ordinary bytes are held at most because an urgent value stands behind them; 256 KiB at first.
    /// A value further on is found once enough of them have been read.
    void SetUrgentBudget(std::size_t bytes) { urgentBudget = bytes; }
    /// When the last of several calls of Send and Recv ends, on the clock of btkTimeval::Now, whatever their
    /// own limits say; Forever, as at first: only those hold.
    void SetDeadline(btkTimeval end) { deadline = end; }

    /// Has Send wait before an urgent value until this time has passed since the last one, or something has
    /// come from the peer since. 0, as at first: it does not.
    void SetUrgentSpacing(btkTimeval spacing) { urgentSpacing = spacing; }

    /// Sends all `size` bytes. Answers how many were sent, which is less than `size` only when sending
    /// failed. `oob`: as one urgent value, which must have four bytes; waits at most 200 ms until what was
    /// sent before has arrived.
    std::size_t Send(const void* from, std::size_t size, bool oob = false);
    /// Waits for bytes and receives up to `size` of them; 0 at the end of the input, -1 when it failed.
    /// `oob`: receives the oldest urgent value that has come, without waiting: 4, less when the peer sent
    /// fewer bytes, 0 when there is none.
    std::ptrdiff_t Recv(void* to, std::size_t size, bool oob = false);
    /// The same where nothing is known to be there.
    std::ptrdiff_t AwaitAndRecv(void* to, std::size_t size);
    /// Receives what is there without waiting: as Recv, and -1 with EAGAIN when there is nothing.
    std::ptrdiff_t TryRecv(void* to, std::size_t size);
    /// Receives `size` bytes, fewer only at the end of the input or when it failed. Answers how many.
    std::size_t RecvAll(void* to, std::size_t size);

    /// How many ordinary bytes can be received without waiting.
    std::size_t CountReadable();
    /// Whether Recv would answer at once: with ordinary bytes, with the end or with a failure.
    bool IsReadable(btkTimeval limit = {});
    /// The same as a new event, without a system call where no urgent value has come. The caller owns it, and
    /// frees it before the socket.
    btkBaseEvent* GetInputEvent();
    /// For such events: what is known before the host is asked, which poll conditions to ask for, and what
    /// follows from those that were found.
    bool HoldsReadable() const;
    short GetInputConditions() const;
    bool IsReadableAfter(short found);
    /// Whether an urgent value can be received.
    bool HasUrgent();
    /// Whether there is room to read on to an urgent value's mark.
    bool MayReadAhead() const;

    /// The peer's address, as numbers; one that is IPv4 mapped into IPv6 is dotted. Empty when it is not
    /// known; of an accepted connection it always is.
    std::string GetPeerAddrStr() const;
    /// Whether the peer runs on this machine: its address is a loopback one, or this end's own.
    bool IsPeerOnTheSameMachine() const;

private:
    friend class btkAcceptSocket;
    struct Ahead;

    enum class Wait { never, whenNothingIsThere, first };

    template<class Call>
    std::ptrdiff_t Transfer(short events, btkTimeval end, bool waitsFirst, Call call);
    bool Await(short events, btkTimeval end);
    std::ptrdiff_t Receive(char* to, std::size_t size, Wait wait);
    std::ptrdiff_t ReceiveRaw(char* to, std::size_t size, Wait wait, btkTimeval end, bool& mayBeMore);
    bool IsUrgentPending() const;
    bool IsAtMark() const;
    Ahead& GetAhead();
    void Settle();
    void ReadToMark();
    void TakeMark(char last);

    btkTimeval recvLimit = btkTimeval::Forever();
    btkTimeval sendLimit = btkTimeval::Forever();
    std::shared_ptr<const btkStopSign> stopSign;
    bool limitPassed = false;
    std::size_t urgentBudget = 256 << 10;
    btkTimeval deadline = btkTimeval::Forever();
    btkTimeval urgentSpacing;
    btkTimeval lastUrgent;
    unsigned long long receivedThen = 0; // at lastUrgent
    std::array<char, 28> peer = {};      // the address of an accepted connection's peer; room for the longest
    std::unique_ptr<Ahead> ahead;        // what was read because of urgent values; null until there is one
};

/// Waits for connections. Does not block: Accept takes a connection that is there; Wait waits for one.
class BASE_API btkAcceptSocket : public btkSocket
{
public:
    /// Listens on `port`; 0 lets the host choose, see GetPortN. `interface`: the address or name of one of
    /// this machine's interfaces, null for all of them. False, with the reason in errno, when the port is
    /// outside 0..65535 or taken. A port that is only left over from closed connections is not taken.
    bool Listen(int port, const char* interface);
    void Close() { fd.Reset(); }

    /// Gives the next connection to `connection`. False when there is none now (EAGAIN) or taking it failed.
    bool Accept(btkStreamSocket* connection);
};

/// Whether closing the connection resets it, also when the program ends: what has not been sent is dropped,
/// and the peer learns of the end at once, even when it takes nothing. Off at first: the rest is sent then.
BASE_API void btkResetOnClose(btkHandle connection, bool isOn);
/// How many bytes that were sent have not arrived at the peer's machine.
BASE_API std::size_t btkCountUnsent(btkHandle connection);
/// How many more bytes the peer's machine takes while the peer reads nothing, as far as this one knows; a
/// great number where the operating system does not say.
BASE_API std::size_t btkCountPeerRoom(btkHandle connection);
/// How many bytes have come over the connection since its start; 0 where the operating system does not say.
BASE_API unsigned long long btkCountReceived(btkHandle connection);
/// How many bytes this machine takes, about, while this end reads nothing. Before it is set, the operating
/// system lets it grow to some MiB.
BASE_API void btkSetOwnRoom(btkHandle connection, std::size_t bytes);

/// Whether `host` means this machine: null, empty, `localhost` or the machine's own name, in any case.
BASE_API bool btkIsThisMachine(const char* host);
