#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <qel/base/btkevent.h>
#include <qel/base/btkfd.h>
#include <qel/base/btkpeeruser.h>

/// A TCP socket over IPv4 or IPv6. Its descriptor is closed on exec. Used by one thread at a time.
class BASE_API btkSocket
{
public:
    btkSocket(btkSocket&&) = default;
    btkSocket& operator=(btkSocket&&) = default;

    /// Whether there is a socket: it has not been closed or moved away.
    bool IsOpen() const { return static_cast<bool>(fd); }
    /// The descriptor, which stays the socket's; -1 when it is not open.
    btkHandle GetHandle() const { return fd.Get(); }

    /// Waits until the socket can be read or has a connection to accept (`conditions` 1), can be written (2),
    /// or either (3). Returns the conditions that hold; 0 when waiting failed, -1 when `limit` has passed.
    int Wait(btkTimeval limit, int conditions) const;

    /// Returns this end's port; 0 when the socket is not open.
    int GetPortN() const;
    /// Returns this end's address in numeric form; IPv4 is dotted, IPv6 as `2001:db8::1`. Empty when it is
    /// not open.
    std::string GetLocalAddrStr() const;
    /// Whether that address is a loopback one.
    bool IsOnLoopback() const;

protected:
    btkSocket() = default;
    ~btkSocket() = default;

    /// Owns the socket.
    btkFd fd;
};

/// The bytes of connections, which the buffers over them add up in any thread.
struct btkTraffic
{
    std::atomic<std::uint64_t> received = 0; ///< read from the peers
    std::atomic<std::uint64_t> sent = 0;     ///< written to them
};

/// Notifies the users of connections of a time limit. Shared by the notifying side, in any thread or a signal
/// handler, and by the sockets whose waits it ends.
class BASE_API btkStopSign
{
public:
    /// `event` becomes readable once the end is known; not owned.
    explicit btkStopSign(btkHandle event) : handle(event) {}

    /// Sets the end, before the event becomes readable. Forever, the default: none.
    void SetEnd(btkTimeval time) { end.store(time, std::memory_order_release); }
    btkTimeval GetEnd() const { return end.load(std::memory_order_acquire); }
    bool IsKnown() const { return !GetEnd().IsForever(); }
    bool IsOver() const { return IsKnown() && GetEnd() <= btkTimeval::Now(); }

    /// The event's handle, -1 once it is closed: Leave must be called before the event is closed.
    btkHandle GetHandle() const { return handle.load(std::memory_order_acquire); }
    void Leave() { handle.store(-1, std::memory_order_release); }

private:
    std::atomic<btkHandle> handle;
    std::atomic<btkTimeval> end = btkTimeval::Forever();
};

class btkCarrier;

/// A connection: a stream of bytes in each direction, and beside it urgent values of four bytes. Only the
/// notification of a value overtakes; reading the value buffers the ordinary bytes sent before it, from where
/// later reads take them.
///
/// TCP has one urgent mark for each direction, and a sender cannot know how far its peer has read: a second
/// value that arrives before the peer has read past the mark of the first takes that mark. The first is then
/// no longer an urgent value, and its four bytes stay among the ordinary ones and corrupt their values.
/// SetUrgentSpacing makes that rare. None of this holds for an encrypted connection: see btkCarrier.
///
/// Keepalive: a peer that vanishes silently, for example by a power failure, is probed after a minute of
/// silence; receiving fails with ETIMEDOUT a minute later.
///
/// Failed calls leave the reason in errno. No call raises SIGPIPE, and signals do not interrupt calls.
class BASE_API btkStreamSocket : public btkSocket
{
public:
    btkStreamSocket();
    ~btkStreamSocket();

    /// Connects to `port` (1..65535) of `host`, a name or a numeric address. Null, the empty text, this
    /// machine's own name and `localhost` mean this machine, over its loopback. All addresses of a name are
    /// tried; everything together, including the name's resolution, takes at most `limit`. Closes any
    /// previous connection.
    bool Connect(const char* host, int port, btkTimeval limit);
    /// Makes Connect limit this end's room before it connects, as btkSetOwnRoom. 0, the default: no limit.
    void SetOwnRoom(std::size_t bytes) { ownRoom = bytes; }
    /// Takes over a connected descriptor and owns it.
    void Adopt(btkFd connected);
    void Close();
    /// Makes this the socket of an encrypted connection, with the descriptor `connected` of the same connection as
    /// `from`. The carrier is destroyed after the descriptor has been closed.
    void Encrypt(btkFd connected, const btkStreamSocket& from, std::unique_ptr<btkCarrier> carrying);
    /// For users of the descriptor itself: makes GetHandle() of an encrypted connection, which stays the same number, a
    /// socket of the kernel with decrypted bytes, as btkTunnel. False, with the reason in errno, when that fails.
    bool UseKernelSocket();
    /// Closes the output: the peer reads the data sent before, then the end. Reading continues.
    void ShutdownOutput();

    /// Limits how long Send and Recv wait for the next byte to be sent or received before they fail with
    /// ETIMEDOUT; no limit at first.
    void SetRecvLimit(btkTimeval limit) { recvLimit = limit; }
    void SetSendLimit(btkTimeval limit) { sendLimit = limit; }
    /// Whether the last call failed with ETIMEDOUT because of a limit of this end, not because the peer has
    /// vanished.
    bool IsLimitPassed() const { return limitPassed; }
    /// From the end that `sign` sets, Send and Recv fail with ETIMEDOUT, and pending waits end at that time.
    /// Null: none.
    void SetStopSign(std::shared_ptr<const btkStopSign> sign) { stopSign = std::move(sign); }
    /// Where a buffer over the connection counts its bytes; null: nowhere.
    void SetTraffic(std::shared_ptr<btkTraffic> all) { traffic = std::move(all); }
    btkTraffic* GetTraffic() const { return traffic.get(); }
    /// Limits the number of ordinary bytes buffered to reach an urgent value behind them; 256 KiB at first. A
    /// value further on is found once enough of them have been read.
    void SetUrgentBudget(std::size_t bytes) { urgentBudget = bytes; }
    /// Ends a sequence of calls of Send and Recv, on the clock of btkTimeval::Now, regardless of their own
    /// limits; Forever, the default: only those apply.
    void SetDeadline(btkTimeval end) { deadline = end; }

    /// Makes Send wait before an urgent value until this time has passed since the last one, or data has
    /// arrived from the peer since. 0, the default: no wait.
    void SetUrgentSpacing(btkTimeval spacing) { urgentSpacing = spacing; }

    /// Sends all `size` bytes. Returns the number sent, which is less than `size` only when sending failed.
    /// `oob`: sends one urgent value, which must have four bytes; first waits at most 200 ms until the data
    /// sent before has arrived.
    std::size_t Send(const void* from, std::size_t size, bool oob = false);
    /// Waits for bytes and receives up to `size` of them; 0 at the end of the input, -1 on failure. `oob`:
    /// receives the oldest urgent value that has arrived, without waiting: returns 4, less when the peer sent
    /// fewer bytes, 0 when there is none.
    std::ptrdiff_t Recv(void* to, std::size_t size, bool oob = false);
    /// The same when no data is known to be available.
    std::ptrdiff_t AwaitAndRecv(void* to, std::size_t size);
    /// Receives the available bytes without waiting: like Recv, and -1 with EAGAIN when there are none.
    std::ptrdiff_t TryRecv(void* to, std::size_t size);
    /// Receives `size` bytes, fewer only at the end of the input or on failure. Returns the number received.
    std::size_t RecvAll(void* to, std::size_t size);

    /// Returns the number of ordinary bytes that can be received without waiting.
    std::size_t CountReadable();
    /// Whether Recv would return at once: with ordinary bytes, with the end or with a failure.
    bool IsReadable(btkTimeval limit = {});
    /// Returns the same as a new event, without a system call unless an urgent value has arrived. The caller
    /// owns it, and must free it before the socket.
    btkBaseEvent* GetInputEvent();
    /// For such events: the state known before polling, the readiness to wait for, and the result of that found.
    bool HoldsReadable() const;
    btkReadiness GetAwaitedInput() const;
    bool IsReadableAfter(btkReadiness found);
    /// Whether an urgent value can be received.
    bool HasUrgent();
    /// Whether there is room to read on to an urgent value's mark.
    bool MayReadAhead() const;
    /// For events of urgent values: the descriptor, -1 if none can arrive any more; the readiness to wait for; and
    /// whether the connection is lost, after a wait that found `found`.
    btkHandle GetUrgentHandle() const;
    btkReadiness GetAwaitedUrgent() const;
    bool IsLost(btkReadiness found = btkNotReady) const;

    /// Returns the number of bytes that Send would send at once; `broken` is set if it would fail.
    std::size_t CountWritable(bool& broken) const;
    /// For events of room for output of an encrypted connection: whether the peer grants any, or no more can be sent;
    /// and the readiness to wait for.
    bool MayWrite();
    btkReadiness GetAwaitedOutput();

    /// Returns the peer's numeric address; an IPv4 address mapped into IPv6 is dotted. Empty when unknown; it
    /// is always known for an accepted connection.
    std::string GetPeerAddrStr() const;
    /// Whether the peer runs on this machine: its address is a loopback one, or this end's own.
    bool IsPeerOnTheSameMachine() const;
    /// As btkGetPeerUser for the peer itself, also of an encrypted connection.
    std::optional<btkUserId> GetPeerUser() const;
    /// Whether the connection is encrypted: both ends have shown certificates that the other's authorities have signed.
    bool IsEncrypted() const { return carrier != nullptr; }
    /// That of an encrypted connection; null for others.
    btkCarrier* GetCarrier() const { return carrier.get(); }
    /// Whether the next byte has arrived, and is `byte`, without taking it. False when data was read ahead.
    bool BeginsWith(unsigned char byte) const;

private:
    friend class btkAcceptSocket;
    struct Ahead;

    enum class Wait { never, whenNothingIsThere, first };

    template<class Call>
    std::ptrdiff_t Transfer(btkReadiness awaited, btkTimeval end, bool waitsFirst, Call call);
    bool Await(btkReadiness awaited, btkTimeval end);
    void AwaitUrgentTurn() const;
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
    std::shared_ptr<btkTraffic> traffic;
    bool limitPassed = false;
    std::size_t ownRoom = 0;
    std::size_t urgentBudget = 256 << 10;
    btkTimeval deadline = btkTimeval::Forever();
    btkTimeval urgentSpacing;
    btkTimeval lastUrgent;
    unsigned long long receivedThen = 0; // at lastUrgent
    std::array<char, 28> peer = {};      // the address of an accepted connection's peer; room for the longest
    std::unique_ptr<Ahead> ahead;        // data read to reach urgent values; null until there is one
    std::unique_ptr<btkCarrier> carrier; // null: the connection is not encrypted
    btkCarrier* direct = nullptr;        // the carrier, while this thread moves its data
};

/// Waits for connections. Non-blocking: Accept takes a pending connection; Wait waits for one.
class BASE_API btkAcceptSocket : public btkSocket
{
public:
    /// Listens on `port`; 0 lets the operating system choose, see GetPortN. `listenOn`: the address or name
    /// of one of this machine's interfaces, null for all of them. False, with the reason in errno, when the
    /// port is outside 0..65535 or taken. A port merely left over from closed connections is not taken.
    bool Listen(int port, const char* listenOn);
    /// Takes over a descriptor that listens and does not block, and owns it.
    void Adopt(btkFd listening);
    void Close() { fd.Reset(); }

    /// Stores the next connection in `connection`. False when none is pending (EAGAIN) or accepting failed.
    bool Accept(btkStreamSocket* connection);

    /// Why Accept returned no connection: one that has ended already, a lack of descriptors or memory that
    /// may pass, or a socket that cannot be used any more.
    enum class Failure { passing, noResources, unusable };
    /// Classifies `error`, the errno of a failed Accept: none is pending or that one has left; no descriptor or memory
    /// is left; no connection can come here any more.
    static Failure FailureOf(int error);
};

/// Sets whether closing the connection, also by the exit of the program, resets it: unsent data is dropped,
/// and the peer sees the end at once, even if it reads nothing. Off at first: unsent data is then sent.
BASE_API void btkResetOnClose(btkHandle connection, bool isOn);
/// Returns the number of sent bytes that have not arrived at the peer's machine.
BASE_API std::size_t btkCountUnsent(btkHandle connection);
/// The room of a receiver to which urgent values are announced however much it leaves unread; less than a
/// btkStreamSocket reads ahead to one.
inline constexpr std::size_t btkUrgentRoom = 96 << 10;
/// Returns how many more bytes may be sent to a peer that possibly reads nothing, so that an urgent value sent
/// behind them is announced to it, as far as this machine knows; 0 when it is not worthwhile, a large number where
/// the operating system does not report it. The peer must have set its room to btkUrgentRoom. Over the loopback,
/// 0 may be returned forever to a peer that has lowered it to less than 64 KiB.
BASE_API std::size_t btkCountPeerRoom(btkHandle connection);
/// Returns the number of bytes received over the connection since its start; 0 where the operating system
/// does not report it.
BASE_API unsigned long long btkCountReceived(btkHandle connection);
/// Sets approximately how many bytes this machine buffers while this end reads nothing. Until it is set, the
/// operating system lets it grow to some MiB. Accepted connections inherit it from the listening socket: only room that
/// is set before connecting also limits small segments, since the kernel rounds each window up to its unit, of 1 KiB or
/// more otherwise.
BASE_API void btkSetOwnRoom(btkHandle connection, std::size_t bytes);

/// Whether `host` means this machine: null, empty, `localhost` or the machine's own name, in any case.
BASE_API bool btkIsThisMachine(const char* host);
